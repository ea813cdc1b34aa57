#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tavo/tavo.h"

// Records every callback a host listener receives, as "name" or "name:arg", with the thread it
// arrived on. Safe to read while callbacks arrive on other threads.
class EventLog {
 public:
  void add(std::string event) {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
    threads_.push_back(std::this_thread::get_id());
  }
  std::vector<std::string> events() const {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::vector<std::thread::id> threads() const {
    std::lock_guard lock(mutex_);
    return threads_;
  }
  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return events_.size();
  }
  bool has(const std::string& event) const {
    std::lock_guard lock(mutex_);
    for (const auto& e : events_) {
      if (e == event) return true;
    }
    return false;
  }
  std::string last() const {
    std::lock_guard lock(mutex_);
    return events_.empty() ? std::string() : events_.back();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> events_;
  std::vector<std::thread::id> threads_;
};

inline std::string Describe(const ZMError& error) {
  return error.domain + "|" + std::to_string(error.code);
}
inline std::string Describe(const std::optional<std::string>& text) {
  return text ? *text : "(null)";
}

struct InitRecorder : ZMRuntimeInitListener, EventLog {
  std::shared_ptr<ZMZimoGameRuntime> runtime;
  std::optional<ZMException> failure;
  void onInitializeSuccess(std::shared_ptr<ZMZimoGameRuntime> r) override {
    runtime = r;
    add("onInitializeSuccess");
  }
  void onInitializeFailure(const ZMException& e) override {
    failure = e;
    add("onInitializeFailure:" + e.name() + "|" + e.reason().value_or("(null)"));
  }
};

struct CheckRecorder : ZMPackageCheckVersionListener, EventLog {
  void onCheckVersionStart(const ZMValue&) override { add("onCheckVersionStart"); }
  void onCheckVersionSuccess() override { add("onCheckVersionSuccess"); }
  void onCheckVersionFailure(const ZMError& e) override {
    add("onCheckVersionFailure:" + Describe(e));
  }
};

struct InstallRecorder : ZMPackageInstallListener, EventLog {
  void onInstallStart() override { add("onInstallStart"); }
  void onInstallSuccess() override { add("onInstallSuccess"); }
  void onInstallFailure(const ZMError& e) override { add("onInstallFailure:" + Describe(e)); }
};

struct DownloadRecorder : ZMPackageDownloadListener, EventLog {
  void onDownloadStart() override { add("onDownloadStart"); }
  void onDownloadProgress(int64_t, int64_t) override { add("onDownloadProgress"); }
  void onDownloadRetry(int64_t n) override { add("onDownloadRetry:" + std::to_string(n)); }
  void onDownloadSuccess(const std::string& p) override { add("onDownloadSuccess:" + p); }
  void onDownloadFailure(const ZMError& e) override { add("onDownloadFailure:" + Describe(e)); }
};

struct RunRecorder : ZMGameRunListener, EventLog {
  std::shared_ptr<ZMGameHandle> handle;
  void onGameHandleCreate(std::shared_ptr<ZMGameHandle> h) override {
    handle = h;
    add("onGameHandleCreate");
  }
  void onRunSuccess() override { add("onRunSuccess"); }
  void onRunFailure(const ZMError& e) override { add("onRunFailure:" + Describe(e)); }
};

struct ExitRecorder : ZMGameExitListener, EventLog {
  void onGameExitSuccess() override { add("onGameExitSuccess"); }
  void onGameExitFailure(const ZMError& e) override { add("onGameExitFailure:" + Describe(e)); }
};

struct QueryExitRecorder : ZMGameQueryExitListener, EventLog {
  void onQueryExit(const std::string& appId, const ZMValue& result) override {
    add("onQueryExit:" + appId + "|" + result.dump());
  }
};

struct RemoveRecorder : ZMGameRemoveListener, EventLog {
  void onRemoveStart(const std::optional<std::string>& a,
                     const std::optional<std::string>& x) override {
    add("onRemoveStart:" + Describe(a) + "|" + Describe(x));
  }
  void onRemoveFinish(const std::optional<std::string>& a,
                      const std::optional<std::string>& x) override {
    add("onRemoveFinish:" + Describe(a) + "|" + Describe(x));
  }
  void onRemoveSuccess(const std::optional<std::vector<std::string>>& removed) override {
    std::string text = removed ? "[" : "(null)";
    if (removed) {
      for (std::size_t i = 0; i < removed->size(); ++i) text += (i ? "," : "") + (*removed)[i];
      text += "]";
    }
    add("onRemoveSuccess:" + text);
  }
  void onRemoveFailure(const ZMError& e) override { add("onRemoveFailure:" + Describe(e)); }
};

struct SweepRecorder : ZMCheckFileAvailabilityListener, EventLog {
  void onCheckStart() override { add("onCheckStart"); }
  void onCheckProgress(const std::string& path) override { add("onCheckProgress:" + path); }
  void onCheckSuccess() override { add("onCheckSuccess"); }
  void onCheckFailure(const ZMError& e) override { add("onCheckFailure:" + Describe(e)); }
};

struct ListRecorder : ZMGameListListener, EventLog {
  ZMValue items;
  void onListGameSuccess(const ZMValue& i) override {
    items = i;
    add("onListGameSuccess");
  }
  void onListGameFailure(const ZMError& e) override { add("onListGameFailure:" + Describe(e)); }
};

struct DataRecorder : ZMGameDataListener, EventLog {
  void onGameDataSetSuccess() override { add("onGameDataSetSuccess"); }
  void onGameDataSetFailure(const ZMError& e) override {
    add("onGameDataSetFailure:" + Describe(e));
  }
};
