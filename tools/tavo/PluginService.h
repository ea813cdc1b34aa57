#pragma once

#include <functional>
#include <optional>
#include <string>

#include "HttpServer.h"
#include "PackageDirectory.h"
#include "PluginQueries.h"

// PluginService is the plug-in service that `tavo serve` and `tavo demo` run: it answers the
// runtime's "runtime/plugin/url" and "runtime/plugin/hash" queries (PluginQueries) for the
// packages in one directory, and serves that directory's files under /ced/packages/. It keeps
// no state beyond the directory, so any number of them behind a load balancer agree; at scale
// the files live elsewhere (nginx, a CDN, an object store) and `packageUrl` points there.
//
// bind(), then start(); stop() from any thread (the destructor stops it). `log` is called on the
// server's loop threads, several at once, one line per request.
class PluginService {
 public:
  struct Settings {
    std::string directory;
    // Where answers say the packages are: "<packageUrl>/<file name>". Empty: this service's own
    // /ced/packages, at the address the client reached the service by.
    std::string packageUrl;
    HttpLimits limits;
  };

  PluginService(Settings settings, std::function<void(const std::string&)> log);
  PluginService(const PluginService&) = delete;
  PluginService& operator=(const PluginService&) = delete;

  // Listens on `address` (an IP literal) at `port` (0: a free one); the reason when it cannot.
  std::optional<std::string> bind(const std::string& address, int port);
  // "http://ADDRESS:PORT/ced": what a runtime takes as a plug-in service host.
  std::string baseUrl() const;
  void start() { server_.start(); }
  void stop() { server_.stop(); }

 private:
  std::optional<HttpResponse> handle(HttpRequest& request, bool mayBlock);
  std::string packageBase(const HttpRequest& request) const;
  std::string origin() const;  // "http://ADDRESS:PORT"

  const std::string packageUrl_;
  std::string address_;  // set by bind(), before any request
  PackageDirectory packages_;
  PluginQueries queries_{packages_};
  HttpServer server_;  // last: stopped before what its handler uses goes
};
