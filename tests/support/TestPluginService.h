#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/TestHttpServer.h"
#include "tavo/tavo.h"

// A plug-in service on 127.0.0.1 under any number of host names. "/<name>/ced/runtime/plugin/hash"
// and ".../url" answer what answer() or lists() set for the name (code 500 without);
// "/pkg/<file>" serves what serve() set for the file (404 without). Requests are kept in arrival
// order, noted as "<name> hash", "<name> url" or "GET <file>". A request for the route set by
// stall() ("hash", "url" or a file) hangs until release().
class TestPluginService {
 public:
  using Reply = std::pair<int, std::string>;

  TestPluginService() {
    const auto handle = [this](const httplib::Request& req, httplib::Response& res) {
      const bool get = req.method == "GET";
      const std::string key = get ? "GET " + req.matches[1].str() : req.matches[1].str();
      std::unique_lock lock(mutex_);
      requests_.push_back(req);
      log_.push_back(get ? key : key + " " + req.matches[2].str());
      if (req.matches[get ? 1 : 2] == stall_) {
        freed_.wait_for(lock, std::chrono::seconds(10), [this] { return released_; });
        ++late_;
      }
      const auto it = replies_.find(key);
      const auto [status, body] = it != replies_.end() ? it->second
                                  : get                ? Reply{404, ""}
                                                       : Reply{200, R"({"code":500})"};
      res.status = status;
      res.set_content(body, "application/json");
    };
    server_.Post(R"(/(\w+)/ced/runtime/plugin/(hash|url))", handle);
    server_.Get("/pkg/(.*)", handle);
    server_.start();
  }
  ~TestPluginService() { release(); }

  std::string host(const std::string& name) const { return server_.url("/" + name + "/ced"); }
  std::string package(const std::string& file) const { return server_.url("/pkg/" + file); }
  void answer(const std::string& name, std::string body, int status = 200) {
    std::lock_guard lock(mutex_);
    replies_[name] = {status, std::move(body)};
  }
  void lists(const std::string& name, const ZMValue& entries) {
    answer(name, ZMValue{{"code", 200}, {"plugin_results", entries}}.dump());
  }
  void serve(const std::string& file, std::string bytes) { answer("GET " + file, bytes); }
  void stall(std::string route) { set(stall_, std::move(route)); }
  void release() {
    set(released_, true);
    freed_.notify_all();
  }
  std::vector<std::string> log() { return copy(log_); }
  std::vector<httplib::Request> requests() { return copy(requests_); }
  int answeredAfterRelease() { return copy(late_); }

 private:
  template <typename T>
  void set(T& member, T value) {
    std::lock_guard lock(mutex_);
    member = std::move(value);
  }
  template <typename T>
  T copy(const T& member) {
    std::lock_guard lock(mutex_);
    return member;
  }

  std::mutex mutex_;
  std::condition_variable freed_;
  std::vector<std::string> log_;
  std::vector<httplib::Request> requests_;
  std::map<std::string, Reply> replies_;  // by host name or "GET <file>"
  std::string stall_;
  bool released_ = false;
  int late_ = 0;
  TestHttpServer server_;  // declared last: stopped before the state its handlers use goes
};
