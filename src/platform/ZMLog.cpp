#include "tavo/ZMLog.h"

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

namespace {

struct LogState {
  std::mutex mutex;
  ZMLog::Sink sink;
};

LogState& state() {
  static LogState* s = new LogState();  // never destroyed: threads may log during exit
  return *s;
}

}  // namespace

void ZMLog::setSink(Sink sink) {
  std::lock_guard lock(state().mutex);
  state().sink = std::move(sink);
}

void ZMLog::write(std::string_view line) {
  std::lock_guard lock(state().mutex);
  if (state().sink) {
    state().sink(line);
    return;
  }
  std::fprintf(stderr, "libtavo: %.*s\n", static_cast<int>(line.size()), line.data());
}
