#pragma once

#include <httplib.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "tavo/ZMValue.h"

// PluginService is the reference plug-in service that `tavo serve` and `tavo demo` run: it
// answers the runtime's "runtime/plugin/url" and "runtime/plugin/hash" queries for the packages
// in one directory, named <provider>_<version>.zip, and serves those files. A package's hash is
// its MD5, computed when it is first asked about and again whenever the file changes (its size
// or modification time), so a package replaced while the service runs is announced anew.
//
// Requests are handled on the HTTP server's own threads; `log` is called there, one line per
// request. bind(), then start() (the server runs on a thread of its own); stop() from any
// thread. The destructor stops it.
class PluginService {
 public:
  PluginService(std::string directory, std::function<void(const std::string&)> log);
  ~PluginService();
  PluginService(const PluginService&) = delete;
  PluginService& operator=(const PluginService&) = delete;

  // Listens on 127.0.0.1 at `port` (0: a free one); false when it cannot.
  bool bind(int port);
  // "http://127.0.0.1:PORT/ced": what a runtime takes as a plug-in service host.
  std::string baseUrl() const;
  void start();
  void stop();

  // The reply to a query body as the runtime writes it ("k=v&...&plugin_list=<JSON>", values
  // raw): for "url" the packages asked for that exist, for "hash" those whose MD5 differs from
  // the hash sent. A body without a readable plug-in list gets code 400.
  ZMValue answer(const std::string& query, const std::string& body);

 private:
  struct Package {
    int64_t size = -1;
    int64_t modified = -1;
    std::string md5;
  };
  // The package's path and MD5, or null when there is no such package.
  std::optional<std::pair<std::string, std::string>> package(const std::string& provider,
                                                             const std::string& version);

  const std::string directory_;
  const std::function<void(const std::string&)> log_;
  httplib::Server server_;
  int port_ = -1;
  std::thread thread_;
  std::atomic<bool> finished_{false};
  std::mutex mutex_;
  std::map<std::string, Package> packages_;  // by file name, guarded by mutex_
};
