#include "PluginService.h"

#include <algorithm>
#include <cctype>

#include "PackageFiles.h"
#include "Reporter.h"

namespace {

constexpr std::string_view kQueries = "/ced/runtime/plugin/";
constexpr std::string_view kFilesPath = "/ced/packages";
constexpr std::string_view kFiles = "/ced/packages/";
constexpr std::size_t kLargeBody = 64 * 1024;

// A Host header that can stand in a URL as it is: a name or address and a port.
bool IsPlainHost(const std::string& host) {
  return !host.empty() && std::all_of(host.begin(), host.end(), [](unsigned char c) {
    return std::isalnum(c) || c == '.' || c == '-' || c == ':' || c == '[' || c == ']';
  });
}

HttpResponse NotAllowed(const std::string& allowed) {
  HttpResponse response = HttpResponse::error(405, "only " + allowed + " here");
  response.headers.push_back({"Allow", allowed});
  return response;
}

std::string WithoutTrailingSlashes(std::string url) {
  while (url.ends_with('/')) url.pop_back();
  return url;
}

}  // namespace

PluginService::PluginService(Settings settings, std::function<void(const std::string&)> log)
    : packageUrl_(WithoutTrailingSlashes(std::move(settings.packageUrl))),
      packages_(std::move(settings.directory)),
      server_(
          settings.limits,
          [this](HttpRequest& request, bool mayBlock) { return handle(request, mayBlock); },
          std::move(log)) {}

std::optional<std::string> PluginService::bind(const std::string& address, int port) {
  address_ = address;
  return server_.bind(address, port);
}

std::string PluginService::baseUrl() const { return origin() + "/ced"; }

std::string PluginService::origin() const {
  const bool v6 = address_.find(':') != std::string::npos;
  return "http://" + (v6 ? "[" + address_ + "]" : address_) + ":" + std::to_string(server_.port());
}

std::string PluginService::packageBase(const HttpRequest& request) const {
  if (!packageUrl_.empty()) return packageUrl_;
  // The address the client reached the service by reaches its files too, even when the service
  // listens on every address.
  const std::string* host = request.header("host");
  if (host && IsPlainHost(*host)) return "http://" + *host + std::string(kFilesPath);
  return origin() + std::string(kFilesPath);
}

std::optional<HttpResponse> PluginService::handle(HttpRequest& request, bool mayBlock) {
  const std::string_view path = request.path;
  if (path.starts_with(kQueries)) {
    const std::string_view query = path.substr(kQueries.size());
    if (query != "url" && query != "hash") return HttpResponse::error(404, "no such query");
    if (request.method != "POST") return NotAllowed("POST");
    // A large list takes milliseconds to read: not on the loop.
    if (!mayBlock && request.body.size() > kLargeBody) return std::nullopt;
    const auto kind = query == "url" ? PluginQueries::Kind::Url : PluginQueries::Kind::Hash;
    const auto answer = queries_.answer(kind, request.body, packageBase(request), mayBlock);
    if (!answer) return std::nullopt;
    const ZMValue& reply = *answer;
    const int code = reply["code"];
    const std::string note = code == 200
                                 ? std::to_string(reply["plugin_results"].size()) + " result(s)"
                                 : reply["message"].get<std::string>();
    return HttpResponse::json(code, ToJSON(reply), "code " + std::to_string(code) + ", " + note);
  }
  if (path.starts_with(kFiles)) {
    if (request.method != "GET" && request.method != "HEAD") return NotAllowed("GET, HEAD");
    return ServeFile(packages_, path.substr(kFiles.size()), request);
  }
  return HttpResponse::error(404, "nothing is served at this path");
}
