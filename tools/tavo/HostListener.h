#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <string>

#include "Reporter.h"
#include "tavo/tavo.h"

// The listener `tavo` hands to every runtime operation: it reports each callback (a trace line,
// a sentence, a progress bar) and remembers how the operation ended. One instance per operation.
//
// finished() turns true on the operation's last callback; it is read by the main thread while
// the run and exit callbacks arrive on the engine's thread, hence the atomics.
class HostListener : public ZMGameRunListener,
                     public ZMGameExitListener,
                     public ZMGameQueryExitListener,
                     public ZMPackageCheckVersionListener,
                     public ZMPackageDownloadListener,
                     public ZMPackageInstallListener,
                     public ZMGameRemoveListener,
                     public ZMCheckFileAvailabilityListener,
                     public ZMGameListListener,
                     public ZMGameDataListener {
 public:
  explicit HostListener(Reporter& reporter) : reporter_(reporter) {}

  bool finished() const { return finished_; }
  bool succeeded() const { return finished_ && !error(); }
  std::optional<ZMError> error() const;
  // What the operation produced: the downloaded file, the listed games, the swept entries.
  std::string downloadedPath() const;
  ZMValue items() const;
  int64_t deletedCount() const { return deleted_; }

  void onGameHandleCreate(std::shared_ptr<ZMGameHandle> handle) override;
  void onRunSuccess() override;
  void onRunFailure(const ZMError& error) override;
  void onGameExitSuccess() override;
  void onGameExitFailure(const ZMError& error) override;
  void onQueryExit(const std::string& appId, const ZMValue& result) override;
  void onCheckVersionStart(const ZMValue& options) override;
  void onCheckVersionSuccess() override;
  void onCheckVersionFailure(const ZMError& error) override;
  void onDownloadStart() override;
  void onDownloadProgress(int64_t done, int64_t total) override;
  void onDownloadRetry(int64_t retry) override;
  void onDownloadSuccess(const std::string& path) override;
  void onDownloadFailure(const ZMError& error) override;
  void onInstallStart() override;
  void onInstallSuccess() override;
  void onInstallFailure(const ZMError& error) override;
  void onRemoveStart(const std::optional<std::string>& appId,
                     const std::optional<std::string>& extra) override;
  void onRemoveFinish(const std::optional<std::string>& appId,
                      const std::optional<std::string>& extra) override;
  void onRemoveSuccess(const std::optional<std::vector<std::string>>& removed) override;
  void onRemoveFailure(const ZMError& error) override;
  void onCheckStart() override;
  void onCheckProgress(const std::string& deletedPath) override;
  void onCheckSuccess() override;
  void onCheckFailure(const ZMError& error) override;
  void onListGameSuccess(const ZMValue& items) override;
  void onListGameFailure(const ZMError& error) override;
  void onGameDataSetSuccess() override;
  void onGameDataSetFailure(const ZMError& error) override;

 protected:
  void succeed();
  // Records a failure; `last` says whether the operation ends with it.
  void fail(const ZMError& error, bool last = true);
  void setItems(ZMValue items);

  Reporter& reporter_;

 private:
  std::atomic<bool> finished_{false};
  std::atomic<int64_t> deleted_{0};
  mutable std::mutex mutex_;
  std::optional<ZMError> error_;
  std::string downloadedPath_;
  ZMValue items_;
};
