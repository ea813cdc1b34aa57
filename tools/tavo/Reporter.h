#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "tavo/ZMError.h"
#include "tavo/ZMValue.h"

// `value` as JSON text; text that is not UTF-8 (file names, replies) is shown with U+FFFD
// instead of throwing.
std::string ToJSON(const ZMValue& value, int indent = -1);

// Where a command's output goes. Under --trace, stdout carries nothing but the listener
// callbacks the host receives, one JSON object per line in delivery order; otherwise it carries
// plain sentences and, when it is a terminal, a progress bar. Failures always go to stderr.
//
// Thread-safe: the run listener is called on the engine's thread, the rest on the main queue.
class Reporter {
 public:
  Reporter(bool trace, bool terminal) : trace_(trace), terminal_(terminal) {}

  bool tracing() const { return trace_; }

  // One callback: {"event":"<name>","args":[...]} under --trace, nothing otherwise.
  void event(std::string_view name, const ZMValue& args);
  // A plain sentence on stdout (not under --trace).
  void say(std::string_view line);
  // A command's result that is not a callback (a configuration, the storage layout): one JSON
  // line {"result":...} under --trace, the pretty JSON otherwise.
  void result(const ZMValue& value);
  // Progress of a download or an install: a bar on a terminal, a line per tenth otherwise,
  // nothing under --trace. `total` < 0 means unknown.
  void progress(std::string_view label, int64_t done, int64_t total, std::string_view unit);
  // "tavo: <what>: <description> (domain <domain>, code <code>)" on stderr.
  void failure(std::string_view what, const ZMError& error);
  void failure(std::string_view what, std::string_view reason);

  // {"domain":...,"code":...,"userInfo":...}.
  static ZMValue errorValue(const ZMError& error);

 private:
  void endBarLocked();

  const bool trace_;
  const bool terminal_;
  std::mutex mutex_;
  bool barShown_ = false;
  int lastTenth_ = -1;
  std::string lastLabel_;
};
