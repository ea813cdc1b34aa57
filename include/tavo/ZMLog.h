#pragma once

/// @file
/// ZMLog, libtavo's diagnostics.

#include <functional>
#include <string>
#include <string_view>

#include "tavo/ZMExport.h"

/// ZMLog carries libtavo's diagnostics: one plain line per event, without levels. Lines go to
/// stderr unless the host installs a sink. The sink may be called from any thread, one line at a
/// time (calls are serialised); it must not call back into libtavo.
class TAVO_EXPORT ZMLog {
 public:
  /// Receives one log line, without a line end.
  using Sink = std::function<void(std::string_view line)>;
  /// Replaces the sink; nullptr restores stderr.
  static void setSink(Sink sink);
  /// Writes one line to the sink (what libtavo itself calls).
  static void write(std::string_view line);
};
