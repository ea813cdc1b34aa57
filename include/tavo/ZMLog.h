#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "tavo/ZMExport.h"

// ZMLog carries libtavo's diagnostics: one plain line per event, without levels. Lines go to
// stderr unless the host installs a sink. The sink may be called from any thread, one line at a
// time (calls are serialised); it must not call back into libtavo.
class TAVO_EXPORT ZMLog {
 public:
  using Sink = std::function<void(std::string_view line)>;
  // Replaces the sink; nullptr restores stderr.
  static void setSink(Sink sink);
  static void write(std::string_view line);
};
