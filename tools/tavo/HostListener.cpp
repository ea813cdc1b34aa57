#include "HostListener.h"

namespace {

ZMValue Text(const std::optional<std::string>& text) { return text ? ZMValue(*text) : ZMValue(); }

// A callback's arguments, in order. Built element by element: a braced list of one value or of a
// text and a value would be read as something else.
template <typename... T>
ZMValue Args(T&&... values) {
  ZMValue args = ZMValue::array();
  (args.push_back(ZMValue(std::forward<T>(values))), ...);
  return args;
}

}  // namespace

std::optional<ZMError> HostListener::error() const {
  std::lock_guard lock(mutex_);
  return error_;
}

std::string HostListener::downloadedPath() const {
  std::lock_guard lock(mutex_);
  return downloadedPath_;
}

ZMValue HostListener::items() const {
  std::lock_guard lock(mutex_);
  return items_;
}

void HostListener::succeed() { finished_ = true; }

void HostListener::setItems(ZMValue items) {
  std::lock_guard lock(mutex_);
  items_ = std::move(items);
}

void HostListener::fail(const ZMError& error, bool last) {
  {
    std::lock_guard lock(mutex_);
    error_ = error;
  }
  if (last) finished_ = true;
}

void HostListener::onGameHandleCreate(std::shared_ptr<ZMGameHandle> handle) {
  // The handle is an object, not a value: the trace names its kind.
  reporter_.event("onGameHandleCreate", Args(handle ? ZMValue("ZMGameHandle") : ZMValue()));
  reporter_.say("  the engine created the game's view");
}

void HostListener::onRunSuccess() {
  reporter_.event("onRunSuccess", Args());
  reporter_.say("  the game is running");
  succeed();
}

void HostListener::onRunFailure(const ZMError& error) {
  reporter_.event("onRunFailure", Args(Reporter::errorValue(error)));
  fail(error);
}

void HostListener::onGameExitSuccess() {
  reporter_.event("onGameExitSuccess", Args());
  reporter_.say("  the game has exited");
  succeed();
}

void HostListener::onGameExitFailure(const ZMError& error) {
  reporter_.event("onGameExitFailure", Args(Reporter::errorValue(error)));
  fail(error);
}

void HostListener::onQueryExit(const std::string& appId, const ZMValue& result) {
  reporter_.event("onQueryExit", Args(appId, result));
  reporter_.say("  the game " + appId + " asks to quit");
}

void HostListener::onCheckVersionStart(const ZMValue& options) {
  reporter_.event("onCheckVersionStart", Args(options));
}

void HostListener::onCheckVersionSuccess() {
  reporter_.event("onCheckVersionSuccess", Args());
  reporter_.say("  installed");
  succeed();
}

void HostListener::onCheckVersionFailure(const ZMError& error) {
  reporter_.event("onCheckVersionFailure", Args(Reporter::errorValue(error)));
  fail(error);
}

void HostListener::onDownloadStart() { reporter_.event("onDownloadStart", Args()); }

void HostListener::onDownloadProgress(int64_t done, int64_t total) {
  reporter_.event("onDownloadProgress", Args(done, total));
  reporter_.progress("download", done, total, "bytes");
}

void HostListener::onDownloadRetry(int64_t retry) {
  reporter_.event("onDownloadRetry", Args(retry));
  reporter_.say("  retrying the download (" + std::to_string(retry) + ")");
}

void HostListener::onDownloadSuccess(const std::string& path) {
  reporter_.event("onDownloadSuccess", Args(path));
  reporter_.say("  downloaded to " + path);
  {
    std::lock_guard lock(mutex_);
    downloadedPath_ = path;
  }
  succeed();
}

void HostListener::onDownloadFailure(const ZMError& error) {
  reporter_.event("onDownloadFailure", Args(Reporter::errorValue(error)));
  fail(error);
}

void HostListener::onInstallStart() { reporter_.event("onInstallStart", Args()); }

void HostListener::onInstallSuccess() {
  reporter_.event("onInstallSuccess", Args());
  reporter_.say("  installed");
  succeed();
}

void HostListener::onInstallFailure(const ZMError& error) {
  reporter_.event("onInstallFailure", Args(Reporter::errorValue(error)));
  fail(error);
}

void HostListener::onRemoveStart(const std::optional<std::string>& appId,
                                 const std::optional<std::string>& extra) {
  reporter_.event("onRemoveStart", Args(Text(appId), Text(extra)));
}

void HostListener::onRemoveFinish(const std::optional<std::string>& appId,
                                  const std::optional<std::string>& extra) {
  reporter_.event("onRemoveFinish", Args(Text(appId), Text(extra)));
  reporter_.say("  removed " + appId.value_or("(unknown)"));
}

void HostListener::onRemoveSuccess(const std::optional<std::vector<std::string>>& removed) {
  reporter_.event("onRemoveSuccess", Args(removed ? ZMValue(*removed) : ZMValue()));
  if (removed) reporter_.say("  " + std::to_string(removed->size()) + " game(s) removed");
  // A run always ends here; it failed if onRemoveFailure came first.
  finished_ = true;
}

void HostListener::onRemoveFailure(const ZMError& error) {
  reporter_.event("onRemoveFailure", Args(Reporter::errorValue(error)));
  fail(error, /*last=*/false);
}

void HostListener::onCheckStart() { reporter_.event("onCheckStart", Args()); }

void HostListener::onCheckProgress(const std::string& deletedPath) {
  reporter_.event("onCheckProgress", Args(deletedPath));
  reporter_.say("  deleted " + deletedPath);
  ++deleted_;
}

void HostListener::onCheckSuccess() {
  reporter_.event("onCheckSuccess", Args());
  reporter_.say("  " + std::to_string(deleted_) + " expired file(s) deleted");
  succeed();
}

void HostListener::onCheckFailure(const ZMError& error) {
  reporter_.event("onCheckFailure", Args(Reporter::errorValue(error)));
  fail(error);
}

void HostListener::onListGameSuccess(const ZMValue& items) {
  reporter_.event("onListGameSuccess", Args(items));
  {
    std::lock_guard lock(mutex_);
    items_ = items;
  }
  if (items.is_array()) {
    for (const auto& item : items) {
      const auto& extend = item.value(ZM_KEY_GAME_ITEM_EXTEND, ZMValue());
      reporter_.say("  " + item.value(ZM_KEY_GAME_ITEM_APP_ID, ZMValue("?")).get<std::string>() +
                    (extend.is_string() ? "  extend: " + extend.get<std::string>() : ""));
    }
    if (items.empty()) reporter_.say("  no games installed");
  }
  succeed();
}

void HostListener::onListGameFailure(const ZMError& error) {
  reporter_.event("onListGameFailure", Args(Reporter::errorValue(error)));
  fail(error);
}

void HostListener::onGameDataSetSuccess() {
  reporter_.event("onGameDataSetSuccess", Args());
  reporter_.say("  stored");
  succeed();
}

void HostListener::onGameDataSetFailure(const ZMError& error) {
  reporter_.event("onGameDataSetFailure", Args(Reporter::errorValue(error)));
  fail(error);
}
