#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "protocol/ZMOnFileDownloadListener.h"
#include "tavo/tavo.h"

inline std::string Describe(const std::string& text) { return text; }
inline std::string Describe(int64_t n) { return std::to_string(n); }
inline std::string Describe(const ZMValue& value) { return value.dump(); }
inline std::string Describe(const ZMError& e) { return e.domain + "|" + std::to_string(e.code); }
inline std::string Describe(const ZMException& e) {
  return e.name() + "|" + e.reason().value_or("(null)");
}
inline std::string Describe(const std::optional<std::string>& text) {
  return text ? *text : "(null)";
}
inline std::string Describe(const std::optional<std::vector<std::string>>& list) {
  if (!list) return "(null)";
  std::string text;
  for (const auto& item : *list) text += (&item == &list->front() ? "" : ",") + item;
  return "[" + text + "]";
}

// Records every callback a host listener receives, as "name" or "name:arg|arg", with the thread
// it arrived on. Safe to read while callbacks arrive on other threads.
class EventLog {
 public:
  void add(std::string event) {
    {
      std::lock_guard lock(mutex_);
      events_.push_back(std::move(event));
      threads_.push_back(std::this_thread::get_id());
    }
    changed_.notify_all();
  }
  template <typename... Args>
  void note(std::string event, const Args&... args) {
    [[maybe_unused]] const char* separator = ":";
    ((event += separator + Describe(args), separator = "|"), ...);
    add(std::move(event));
  }
  std::vector<std::string> events() const { return locked(events_); }
  std::vector<std::thread::id> threads() const { return locked(threads_); }
  std::set<std::thread::id> distinctThreads() const {
    const auto all = threads();
    return {all.begin(), all.end()};
  }
  std::size_t size() const { return events().size(); }
  std::string last() const {
    const auto all = events();
    return all.empty() ? std::string() : all.back();
  }
  // The events with each run of repeats (progress reports) shown once.
  std::vector<std::string> runs() const {
    auto all = events();
    all.erase(std::unique(all.begin(), all.end()), all.end());
    return all;
  }
  // For callbacks that arrive on threads of their own, without the main queue.
  bool waitFor(std::size_t count, std::chrono::seconds timeout = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
  }

 private:
  template <typename T>
  T locked(const T& value) const {
    std::lock_guard lock(mutex_);
    return value;
  }
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
  std::vector<std::thread::id> threads_;
};

struct FileRecorder : ZMOnFileDownloadListener, EventLog {
  std::vector<std::pair<int64_t, int64_t>> progress;
  std::optional<ZMError> error;
  std::function<void()> onFirstProgress;
  std::atomic<int> ends{0};  // terminal callbacks so far

  void onDownloadStart(const std::string& tag) override { note("start", tag); }
  void onDownloadProgress(int64_t done, int64_t total) override {
    progress.emplace_back(done, total);
    note("progress");
    if (onFirstProgress) std::exchange(onFirstProgress, nullptr)();
  }
  void onDownloadSuccess(const std::string& path) override { ++ends, note("success", path); }
  void onDownloadFailure(int32_t code, const std::string& msg, const ZMError& e) override {
    error = e;
    ++ends, note("failure", int64_t{code}, msg);
  }
  void onDownloadCancel() override { ++ends, note("cancel"); }
  void onDownloadRetry(int32_t n) override { note("retry", int64_t{n}); }
};

struct InitRecorder : ZMRuntimeInitListener, EventLog {
  std::shared_ptr<ZMZimoGameRuntime> runtime;
  void onInitializeSuccess(std::shared_ptr<ZMZimoGameRuntime> r) override {
    runtime = r;
    note("onInitializeSuccess");
  }
  void onInitializeFailure(const ZMException& e) override { note("onInitializeFailure", e); }
};

struct CheckRecorder : ZMPackageCheckVersionListener, EventLog {
  void onCheckVersionStart(const ZMValue&) override { note("onCheckVersionStart"); }
  void onCheckVersionSuccess() override { note("onCheckVersionSuccess"); }
  void onCheckVersionFailure(const ZMError& e) override { note("onCheckVersionFailure", e); }
};

struct InstallRecorder : ZMPackageInstallListener, EventLog {
  void onInstallStart() override { note("onInstallStart"); }
  void onInstallSuccess() override { note("onInstallSuccess"); }
  void onInstallFailure(const ZMError& e) override { note("onInstallFailure", e); }
};

struct DownloadRecorder : ZMPackageDownloadListener, EventLog {
  void onDownloadStart() override { note("onDownloadStart"); }
  void onDownloadProgress(int64_t, int64_t) override { note("onDownloadProgress"); }
  void onDownloadRetry(int64_t n) override { note("onDownloadRetry", n); }
  void onDownloadSuccess(const std::string& p) override { note("onDownloadSuccess", p); }
  void onDownloadFailure(const ZMError& e) override { note("onDownloadFailure", e); }
};

struct RunRecorder : ZMGameRunListener, EventLog {
  std::shared_ptr<ZMGameHandle> handle;
  void onGameHandleCreate(std::shared_ptr<ZMGameHandle> h) override {
    handle = h;
    note("onGameHandleCreate");
  }
  void onRunSuccess() override { note("onRunSuccess"); }
  void onRunFailure(const ZMError& e) override { note("onRunFailure", e); }
};

struct ExitRecorder : ZMGameExitListener, EventLog {
  void onGameExitSuccess() override { note("onGameExitSuccess"); }
  void onGameExitFailure(const ZMError& e) override { note("onGameExitFailure", e); }
};

struct QueryExitRecorder : ZMGameQueryExitListener, EventLog {
  std::optional<ZMError> raise;  // thrown after the call is noted
  void onQueryExit(const std::string& a, const ZMValue& r) override {
    // Read before the call is noted: a test may set the next answer once it sees this one.
    const std::optional<ZMError> error = raise;
    note("onQueryExit", a, r);
    if (error) throw *error;
  }
};

struct RemoveRecorder : ZMGameRemoveListener, EventLog {
  using Text = std::optional<std::string>;
  void onRemoveStart(const Text& a, const Text& x) override { note("onRemoveStart", a, x); }
  void onRemoveFinish(const Text& a, const Text& x) override { note("onRemoveFinish", a, x); }
  void onRemoveSuccess(const std::optional<std::vector<std::string>>& removed) override {
    note("onRemoveSuccess", removed);
  }
  void onRemoveFailure(const ZMError& e) override { note("onRemoveFailure", e); }
};

struct SweepRecorder : ZMCheckFileAvailabilityListener, EventLog {
  void onCheckStart() override { note("onCheckStart"); }
  void onCheckProgress(const std::string& path) override { note("onCheckProgress", path); }
  void onCheckSuccess() override { note("onCheckSuccess"); }
  void onCheckFailure(const ZMError& e) override { note("onCheckFailure", e); }
};

struct ListRecorder : ZMGameListListener, EventLog {
  ZMValue items;
  void onListGameSuccess(const ZMValue& i) override {
    items = i;
    note("onListGameSuccess");
  }
  void onListGameFailure(const ZMError& e) override { note("onListGameFailure", e); }
};

// Plug-in listeners note the info's provider (or "(null)") in place of the whole info.
inline std::string ProviderOf(const ZMValue& info) {
  return info.is_object() && info.contains("provider") && info["provider"].is_string()
             ? info["provider"].get<std::string>()
             : "(null)";
}

struct PluginCheckRecorder : ZMPluginCheckVersionListener, EventLog {
  void onCheckPluginVersionStart(const ZMValue& i) override { note("start", ProviderOf(i)); }
  void onCheckPluginSuccess(const ZMValue& i) override { note("success", ProviderOf(i)); }
  void onCheckPluginFailure(const ZMValue& i, const ZMError& e) override {
    note("failure", ProviderOf(i), e);
  }
};

struct PluginInstallRecorder : ZMPluginInstallListener, EventLog {
  std::atomic<int64_t> progressCalls{0};
  void onPluginInstallStart(const ZMValue& i) override { note("start", ProviderOf(i)); }
  void onPluginDownloadProgress(const ZMValue&, int64_t, int64_t) override { ++progressCalls; }
  void onPluginDownloadRetry(const ZMValue& i, int64_t n) override {
    note("retry", ProviderOf(i), n);
  }
  void onPluginInstallSuccess(const ZMValue& i) override { note("success", ProviderOf(i)); }
  void onPluginInstallFailure(const ZMValue& i, const std::optional<ZMError>& e) override {
    e ? note("failure", ProviderOf(i), *e) : note("failure", ProviderOf(i), std::string("null"));
  }
};

struct PluginRemoveRecorder : ZMPluginRemoveListener, EventLog {
  ZMValue removed;
  void onPluginRemoveStart(const ZMValue& i) override { note("start", ProviderOf(i)); }
  void onPluginRemoveFinish(const ZMValue& i) override { note("finish", ProviderOf(i)); }
  void onPluginRemoveSuccess(const ZMValue& r) override {
    removed = r;
    note("success");
  }
  void onPluginRemoveFailure(const ZMError& e) override { note("failure", e); }
};

struct DataRecorder : ZMGameDataListener, EventLog {
  void onGameDataSetSuccess() override { note("onGameDataSetSuccess"); }
  void onGameDataSetFailure(const ZMError& e) override { note("onGameDataSetFailure", e); }
};
