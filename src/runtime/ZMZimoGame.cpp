#include <mutex>

#include "runtime/ZMGameRuntime.h"
#include "tavo/ZMZimoGame.h"

namespace {
// The entry class's own slot; normally the same object as the runtime singleton.
std::mutex gMutex;
std::shared_ptr<ZMGameRuntime> gRuntime;
}  // namespace

void ZMZimoGame::initRuntime(const std::string& userId, const ZMValue& options,
                             const std::shared_ptr<ZMRuntimeInitListener>& listener) {
  std::shared_ptr<ZMGameRuntime> previous;
  {
    std::lock_guard lock(gMutex);
    previous = std::move(gRuntime);
  }
  if (previous) previous->done();
  auto runtime = ZMGameRuntime::init();
  {
    std::lock_guard lock(gMutex);
    gRuntime = runtime;
  }
  try {
    runtime->create(userId, options, listener);
  } catch (const ZMException& exception) {
    if (listener) listener->onInitializeFailure(exception);
  } catch (const ZMError& error) {
    if (listener)
      listener->onInitializeFailure(ZMException(error.domain, std::nullopt, error.userInfo));
  } catch (const std::exception& exception) {
    if (listener) listener->onInitializeFailure(ZMException("init fail", exception.what()));
  }
}

std::shared_ptr<ZMZimoGameRuntime> ZMZimoGame::getRuntime() {
  std::lock_guard lock(gMutex);
  return gRuntime;
}
