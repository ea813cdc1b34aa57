#include "PluginService.h"

#include <sys/stat.h>

#include <fstream>
#include <memory>

#include "Reporter.h"
#include "tavo/ZMFileUtils.h"

namespace {

// The plug-in list is the body's last pair and JSON, which may itself hold "&" or "=", so it is
// everything after its key; the pairs before it are not needed to answer.
std::optional<ZMValue> pluginList(const std::string& body) {
  constexpr std::string_view kKey = "plugin_list=";
  std::size_t at = body.rfind(std::string("&") + std::string(kKey));
  at = at == std::string::npos ? (body.rfind(kKey, 0) == 0 ? 0 : std::string::npos) : at + 1;
  if (at == std::string::npos) return std::nullopt;
  ZMValue list = ZMValue::parse(body.substr(at + kKey.size()), nullptr, false);
  if (!list.is_array()) return std::nullopt;
  return list;
}

std::string text(const ZMValue& object, const char* key) {
  return object.is_object() && object.contains(key) && object[key].is_string()
             ? object[key].get<std::string>()
             : std::string();
}

// Provider and version become one file name; anything that could leave the directory names no
// package.
bool isPlainName(const std::string& name) {
  return !name.empty() && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos && name[0] != '.';
}

}  // namespace

PluginService::PluginService(std::string directory, std::function<void(const std::string&)> log)
    : directory_(std::move(directory)), log_(std::move(log)) {
  server_.set_keep_alive_timeout(1);  // idle keep-alive connections hold up stop() this long
  // A reply goes out as two writes (headers, body): without this, the body of a reply on a kept
  // connection waits for the client's delayed ACK of the headers, about 40 ms.
  server_.set_tcp_nodelay(true);
  for (const char* query : {"url", "hash"}) {
    server_.Post(std::string("/ced/runtime/plugin/") + query,
                 [this, query](const httplib::Request& request, httplib::Response& response) {
                   const ZMValue reply = answer(query, request.body);
                   response.set_content(ToJSON(reply), "application/json");
                   const auto results = reply.value("plugin_results", ZMValue::array());
                   log_("POST /ced/runtime/plugin/" + std::string(query) + " code " +
                        ToJSON(reply["code"]) + ", " + std::to_string(results.size()) +
                        " result(s)");
                 });
  }
  server_.Get("/ced/packages/([^/]+)", [this](const httplib::Request& request,
                                              httplib::Response& response) {
    const std::string name = request.matches[1];
    const std::string path = directory_ + "/" + name;
    struct stat info {};
    if (!isPlainName(name) || ::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
      response.status = 404;
      log_("GET /ced/packages/" + name + " 404");
      return;
    }
    auto file = std::make_shared<std::ifstream>(path, std::ios::binary);
    response.set_content_provider(
        static_cast<std::size_t>(info.st_size), "application/zip",
        [file](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
          char buffer[1 << 16];
          file->seekg(static_cast<std::streamoff>(offset));
          file->read(buffer, static_cast<std::streamsize>(std::min(length, sizeof buffer)));
          const auto got = file->gcount();
          return got > 0 && sink.write(buffer, static_cast<std::size_t>(got));
        });
    log_("GET /ced/packages/" + name + " 200, " + std::to_string(info.st_size) + " bytes");
  });
}

PluginService::~PluginService() { stop(); }

bool PluginService::bind(int port) {
  port_ = port > 0 ? (server_.bind_to_port("127.0.0.1", port) ? port : -1)
                   : server_.bind_to_any_port("127.0.0.1");
  return port_ > 0;
}

std::string PluginService::baseUrl() const {
  return "http://127.0.0.1:" + std::to_string(port_) + "/ced";
}

void PluginService::start() {
  // The socket listens from bind() on; requests wait in the backlog until the thread accepts.
  thread_ = std::thread([this] {
    server_.listen_after_bind();
    finished_ = true;
  });
}

void PluginService::stop() {
  if (!thread_.joinable()) return;
  // stop() only acts on a server that is listening; the thread gets there at once.
  while (!server_.is_running() && !finished_) std::this_thread::yield();
  server_.stop();
  thread_.join();
}

ZMValue PluginService::answer(const std::string& query, const std::string& body) {
  const auto list = pluginList(body);
  if (!list) return {{"code", 400}, {"message", "no readable plugin_list in the body"}};
  ZMValue results = ZMValue::array();
  for (const auto& asked : *list) {
    const std::string provider = text(asked, "plugin_id"), version = text(asked, "version");
    const auto found = package(provider, version);
    if (!found) continue;
    // The hash query lists only what changed; the url query everything that exists.
    if (query == "hash" && text(asked, "hash") == found->second) continue;
    results.push_back({{"plugin_id", provider},
                       {"version", version},
                       {"hash", found->second},
                       {"url", baseUrl() + "/packages/" + found->first}});
  }
  return {{"code", 200}, {"plugin_results", std::move(results)}};
}

std::optional<std::pair<std::string, std::string>> PluginService::package(
    const std::string& provider, const std::string& version) {
  const std::string name = provider + "_" + version + ".zip";
  const std::string path = directory_ + "/" + name;
  struct stat info {};
  if (!isPlainName(provider) || !isPlainName(version) || ::stat(path.c_str(), &info) != 0 ||
      !S_ISREG(info.st_mode)) {
    return std::nullopt;
  }
  const int64_t modified =
      static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
  std::lock_guard lock(mutex_);
  Package& known = packages_[name];
  if (known.size != info.st_size || known.modified != modified) {
    known = {info.st_size, modified, ZMFileUtils::getFileMD5(path).value_or("")};
  }
  return std::pair{name, known.md5};
}
