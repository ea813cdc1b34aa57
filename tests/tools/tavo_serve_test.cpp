// `tavo serve` as clients on a network meet it: the runtime's queries, hostile and slow
// clients, byte ranges, and the production shape behind nginx.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

#include "TavoCli.h"
#include "support/TestHttpServer.h"
#include "support/TestSigner.h"
#include "support/TestZip.h"

namespace {

// A client connection to 127.0.0.1:port that writes and reads raw bytes.
class Connection {
 public:
  explicit Connection(int port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      ADD_FAILURE() << "cannot connect to port " << port;
    }
  }
  ~Connection() { ::close(fd_); }

  bool send(const std::string& bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // What arrives until it holds `until`, the server closes, or 10 s pass.
  std::string read(const std::string& until) {
    std::string got;
    pollfd ready{fd_, POLLIN, 0};
    char chunk[65536];
    for (ssize_t n = 1;
         n > 0 && got.find(until) == std::string::npos && ::poll(&ready, 1, 10000) == 1;) {
      if ((n = ::recv(fd_, chunk, sizeof chunk, 0)) > 0) got.append(chunk, n);
    }
    return got;
  }
  int fd() const { return fd_; }

 private:
  int fd_;
};

// A query body as the runtime writes it: its pairs in their order, values raw, the list last.
std::string QueryBody(const std::string& query, const ZMValue& list,
                      const std::string& deviceId = "device-1") {
  return "client_id=merin&device_id=" + deviceId + (query == "hash" ? "&game_id=g" : "") +
         "&app_bundle_id=tavo&client_version=1.0.0&cpu_abi=x86_64&os=iOS&os_version=12" +
         "&plugin_list=" + list.dump(2);
}

class TavoServe : public TavoCli {
 protected:
  void SetUp() override { std::filesystem::create_directories(pk); }
  std::string pk = dir / "pk";
};

TEST_F(TavoServe, QueriesAreReadTheWayTheRuntimeWritesThem) {
  MakeZip(pk + "/demo_1.0.zip", {{"main.js", "1"}});
  WriteFile(pk + "/a b#c?d%e_1.0.zip", "odd");
  const std::string md5 = Md5(pk + "/demo_1.0.zip");
  ServedPlugins service(pk, dir / "serve.log");
  const std::string packages = service.url + "/packages/";
  const ZMValue demo = {{"plugin_id", "demo"}, {"version", "1.0"}};
  ZMValue game = ZMValue::array();  // a game with 1,000 installed plug-ins, demo's stale
  for (int i = 0; i < 999; ++i) {
    game.push_back({{"plugin_id", "p" + std::to_string(i)}, {"version", "1.0"}, {"hash", md5}});
  }
  game.push_back({{"plugin_id", "demo"}, {"version", "1.0"}, {"hash", "0"}});
  const ZMValue odd = {{"plugin_id", "a b#c?d%e"}, {"version", "1.0"}};
  const ZMValue fake = {{"plugin_id", "x&plugin_list=[]"}, {"version", "1"}};
  ZMValue current = demo;
  current["hash"] = md5;

  struct Case {
    std::string query, body;
    int code;
    std::string file;  // listed with its URL; "" for none
  };
  httplib::Client client("127.0.0.1", service.port);
  for (const Case& c : std::vector<Case>{
           {"hash", QueryBody("hash", game), 200, "demo_1.0.zip"},
           {"hash", QueryBody("hash", ZMValue::array({current})), 200, ""},
           {"url", QueryBody("url", ZMValue::array({fake, demo})), 200, "demo_1.0.zip"},
           {"url", QueryBody("url", ZMValue::array({demo}), "a&b=c&os=x"), 200, "demo_1.0.zip"},
           {"url", QueryBody("url", ZMValue::array({odd})), 200, "a%20b%23c%3Fd%25e_1.0.zip"},
           {"url", R"(plugin_list=[{"plugin_id":"demo","version":"1.0"}])", 400, ""},
           {"url", QueryBody("url", ZMValue::array({demo})).substr(0, 150), 400, ""},
       }) {
    // The runtime's HTTP client sends the form content type.
    const auto reply =
        client.Post("/ced/runtime/plugin/" + c.query, c.body, "application/x-www-form-urlencoded");
    ASSERT_TRUE(reply) << c.body.substr(0, 80);
    EXPECT_EQ(reply->status, c.code) << c.body.substr(0, 80);
    const ZMValue answer = ZMValue::parse(reply->body, nullptr, false);
    EXPECT_EQ(answer["code"], c.code) << reply->body;
    Names urls;
    for (const auto& result : answer.value("plugin_results", ZMValue::array())) {
      urls.push_back(result["url"]);
    }
    EXPECT_EQ(urls, c.file.empty() ? Names{} : Names{packages + c.file}) << c.body.substr(0, 80);
  }
}

TEST_F(TavoServe, OversizedBodiesAreRefusedUnreadAndRequestsLoggedEscaped) {
  ServedPlugins service(pk, dir / "serve.log");
  const std::string post = "POST /ced/runtime/plugin/hash HTTP/1.1\r\nHost: h\r\n";
  // Declared too large: refused from the head, before a byte of the body is sent.
  Connection declared(service.port);
  declared.send(post + "Content-Length: 268435456\r\n\r\n");
  // Chunked: refused once it grows past the limit (1 MiB).
  Connection chunked(service.port);
  chunked.send(post + "Transfer-Encoding: chunked\r\n\r\n");
  for (int i = 0; i < 17; ++i) chunked.send("10000\r\n" + std::string(65536, 'x') + "\r\n");
  for (Connection* refused : {&declared, &chunked}) {
    const std::string reply = refused->read("}");
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 413 ")) << reply;
    EXPECT_NE(reply.find("\r\n\r\n{\"code\":413,"), std::string::npos) << reply;
  }
  Connection escape(service.port);
  escape.send("GET /ced/packages/\x1b]0;owned\x07 HTTP/1.1\r\n\r\n");
  EXPECT_NE(escape.read("}").find(" 404 "), std::string::npos);

  EXPECT_TRUE(service.stop());
  const std::string log = ReadFile(dir / "serve.log");
  EXPECT_NE(log.find("POST /ced/runtime/plugin/hash 413, a body of 268435456 bytes is over the "
                     "limit of 1048576 bytes\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("POST /ced/runtime/plugin/hash 413, the body grew past the limit"),
            std::string::npos);
  EXPECT_NE(log.find("GET /ced/packages/\\x1B]0;owned\\x07 404"), std::string::npos) << log;
  EXPECT_EQ(log.find('\x1b'), std::string::npos);
}

TEST_F(TavoServe, IdleAndSlowClientsHoldUpNobody) {
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  WriteFile(pk + "/demo_1.0.zip", "zip");
  const std::string head = "HEAD /ced/packages/demo_1.0.zip HTTP/1.1\r\n\r\n";
  {
    ServedPlugins service(pk, dir / "serve.log");
    std::vector<std::unique_ptr<Connection>> idle, slow;
    for (int i = 0; i < 1000; ++i) {  // kept alive after one request each
      idle.push_back(std::make_unique<Connection>(service.port));
      idle.back()->send(head);
      ASSERT_NE(idle.back()->read("\r\n\r\n").find(" 200 OK"), std::string::npos) << i;
    }
    for (int i = 0; i < 64; ++i) {  // in the middle of their heads
      slow.push_back(std::make_unique<Connection>(service.port));
      slow.back()->send("GET /ced/packages/demo_1.0.zip HTTP/1.1\r\nX-Slow: ");
    }
    httplib::Client client("127.0.0.1", service.port);
    client.set_connection_timeout(5);
    client.set_read_timeout(5);
    const auto reply = client.Get("/ced/packages/demo_1.0.zip");
    ASSERT_TRUE(reply) << "a new client is not answered";
    EXPECT_EQ(reply->body, "zip");
  }

  // At the connection cap a new client takes the place of an idle one; a head that
  // dribbles in is cut off at its deadline.
  ServedPlugins capped(pk, dir / "capped.log",
                       {"--max-connections", "4", "--request-timeout", "1"});
  std::vector<std::unique_ptr<Connection>> held;
  for (int i = 0; i < 4; ++i) {
    held.push_back(std::make_unique<Connection>(capped.port));
    held.back()->send(head);
    held.back()->read("\r\n\r\n");
  }
  Connection newcomer(capped.port);
  newcomer.send(head);
  EXPECT_NE(newcomer.read("\r\n\r\n").find(" 200 OK"), std::string::npos);
  std::vector<pollfd> idle;
  for (const auto& connection : held) idle.push_back({connection->fd(), POLLIN, 0});
  EXPECT_EQ(::poll(idle.data(), idle.size(), 10000), 1) << "one idle connection is closed";
  Connection dribbling(capped.port);
  bool cutOff = !dribbling.send("GET / HTTP/1.1\r\n");
  for (int i = 0; i < 50 && !cutOff; ++i) {  // a header line every 0.2 s, for 10 s at most
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    cutOff = !dribbling.send("X-Slow: 1\r\n");
  }
  EXPECT_TRUE(cutOff);
  EXPECT_TRUE(capped.stop());
  EXPECT_NE(ReadFile(dir / "capped.log")
                .find("closed a connection that sent no complete request head within 1 s"),
            std::string::npos);
}

TEST_F(TavoServe, RangesAreAnsweredExactlyAndThePluginCycleRunsAgainstIt) {
  const std::string body = PatternBody(232);
  WriteFile(pk + "/r_1.0.zip", body);
  MakeZip(pk + "/demo_1.0.zip", {{"main.js", "console.log(1)"}});
  const std::string odd = "a b#c?d%e";
  MakeZip(pk + "/" + odd + "_1.0.zip", {{"main.js", odd}});
  TestSigner signer;
  MakeZip(pk + "/signed one_1.0.zip", {{"main.js", "signed"}});
  signer.sign(pk + "/signed one_1.0.zip");
  ServedPlugins service(pk, dir / "serve.log");
  ASSERT_TRUE(service.url.ends_with("/ced")) << service.url;
  httplib::Client client("127.0.0.1", service.port);
  client.set_keep_alive(true);  // a length that lies leaves the next request hanging
  client.set_read_timeout(5);
  struct Case {
    std::string range;
    int status;
    std::string contentRange;
    std::size_t first, length;
  };
  for (const Case& c : std::vector<Case>{
           {"bytes=332-432", 416, "bytes */232", 0, 0},
           {"bytes=232-", 416, "bytes */232", 0, 0},
           {"bytes=228-332", 206, "bytes 228-231/232", 228, 4},
           {"bytes=-10", 206, "bytes 222-231/232", 222, 10},
           {"bytes=0-", 206, "bytes 0-231/232", 0, 232},
           {"bytes=5-2", 200, "", 0, 232},
           {"bytes=0-1,4-5", 200, "", 0, 232},
       }) {
    const auto reply = client.Get("/ced/packages/r_1.0.zip", {{"Range", c.range}});
    ASSERT_TRUE(reply) << c.range;
    EXPECT_EQ(reply->status, c.status) << c.range;
    EXPECT_EQ(reply->get_header_value("Content-Range"), c.contentRange) << c.range;
    if (c.status != 416) {
      EXPECT_EQ(reply->body, body.substr(c.first, c.length)) << c.range;
    }
  }

  // `tavo plugin` against it, as the fallback when the primary cannot be reached.
  const Names at = {"--plugin-service", "http://127.0.0.1:1/ced", "--plugin-service", service.url};
  auto plugin = [&](Names args) {
    args.insert(args.begin(), "plugin");
    args.insert(args.end(), at.begin(), at.end());
    return args;
  };
  const ZMValue demo = {{"provider", "demo"}, {"version", "1.0"}};
  const Result installed = trace(plugin({"install", "--provider", "demo", "--version", "1.0"}));
  EXPECT_EQ(installed.last(), (ZMValue{{"event", "onPluginInstallSuccess"}, {"args", {demo}}}));
  EXPECT_EQ(ReadFile(root + "/Caches/plugin/demo_1.0/main.js"), "console.log(1)");
  EXPECT_EQ(trace(plugin({"list"})).last()["args"][0],
            ZMValue::array({{{"provider", "demo"},
                             {"version", "1.0"},
                             {"path", root + "/Caches/plugin/demo_1.0"}}}));
  EXPECT_EQ(trace(plugin({"check", "--info", demo.dump()})).events(),
            (Names{"onInitializeSuccess", "onCheckPluginVersionStart", "onCheckPluginSuccess"}));
  EXPECT_EQ(trace(plugin({"remove", "--provider", "demo", "--version", "1.0"})).events(),
            (Names{"onInitializeSuccess", "onPluginRemoveStart", "onPluginRemoveFinish",
                   "onPluginRemoveSuccess"}));
  // Failures exit 1 with the error on stderr; --info goes to the manager as given.
  Result r = tavo(plugin({"check", "--provider", "demo", "--version", "1.0"}));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Error:plugin config no exist."), std::string::npos) << r.err;
  r = tavo(plugin({"install", "--info", R"({"provider":"demo"})", "--trace"}));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.events(),
            (Names{"onInitializeSuccess", "onPluginInstallStart", "onPluginInstallFailure"}));
  EXPECT_EQ(tavo(plugin({"remove", "--provider", "a"})).status, 1) << "unpaired";

  // A name that needs percent-encoding in a URL installs like any other; a host that trusts a
  // key gets the signature beside the package (its URL with ".minisig" added), or refuses.
  EXPECT_EQ(tavo(plugin({"install", "--provider", odd, "--version", "1.0"})).status, 0);
  EXPECT_EQ(ReadFile(root + "/Caches/plugin/" + odd + "_1.0/main.js"), odd);
  const auto trusting = [&](const std::string& provider) {
    return tavo(plugin({"install", "--provider", provider, "--version", "1.0", "--trust-key",
                        signer.publicKey()}));
  };
  EXPECT_EQ(trusting("signed one").status, 0);
  EXPECT_EQ(ReadFile(root + "/Caches/plugin/signed one_1.0/main.js"), "signed");
  std::filesystem::remove_all(root + "/Caches/plugin/" + odd + "_1.0");
  r = trusting(odd);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("package signature missing: " + service.url +
                       "/packages/a%20b%23c%3Fd%25e_1.0.zip.minisig"),
            std::string::npos)
      << r.err;
  EXPECT_FALSE(Exists(root + "/Caches/plugin/" + odd + "_1.0"));

  EXPECT_TRUE(service.stop());
  const std::string log = ReadFile(dir / "serve.log");
  EXPECT_NE(log.find("POST /ced/runtime/plugin/url 200, code 200, 1 result(s)"), std::string::npos);
  EXPECT_NE(log.find("GET /ced/packages/demo_1.0.zip 200"), std::string::npos) << log;
}

// A port that was free a moment ago.
int FreePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  const auto at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// The README's production shape: nginx serves the packages and balances the queries over two
// replicas. A running game gets its plug-in's update prefetched through it.
TEST_F(TavoServe, NginxServesPackagesAndBalancesQueriesOverTwoReplicas) {
  const std::string nginx = "/usr/sbin/nginx";
  if (::access(nginx.c_str(), X_OK) != 0) {
    GTEST_SKIP() << "nginx is not installed (Debian: nginx-light; scripts/setup.sh installs it)";
  }
  const std::string site = ReadFile(TAVO_SOURCE_DIR "/examples/plugin_service/nginx.conf");
  EXPECT_NE(ReadFile(TAVO_SOURCE_DIR "/README.md").find(site), std::string::npos)
      << "the README shows examples/plugin_service/nginx.conf as it is";
  MakeZip(pk + "/demo_1.0.zip", {{"main.js", "revision 1"}});
  const int port = FreePort();
  const std::string front = "http://127.0.0.1:" + std::to_string(port);
  const Names args = {"--package-url", front + "/plugins"};
  ServedPlugins one(pk, dir / "one.log", args), two(pk, dir / "two.log", args);
  const std::string prefix = dir / "nginx";
  std::filesystem::create_directories(prefix);
  std::string conf = Replaced(site, "listen 80;", "listen 127.0.0.1:" + std::to_string(port) + ";");
  conf = Replaced(conf, "127.0.0.1:8701", "127.0.0.1:" + std::to_string(one.port));
  conf = Replaced(conf, "127.0.0.1:8702", "127.0.0.1:" + std::to_string(two.port));
  WriteFile(prefix + "/site.conf", Replaced(conf, "/srv/plugins/", pk + "/"));
  // One unprivileged process with everything under its prefix.
  WriteFile(prefix + "/nginx.conf",
            "daemon off; master_process off; pid " + prefix +
                "/nginx.pid;\n"
                "events { worker_connections 256; }\nhttp {\n  access_log " +
                prefix + "/access.log;\n  client_body_temp_path " + prefix +
                "/body;\n  proxy_temp_path " + prefix + "/proxy;\n  fastcgi_temp_path " + prefix +
                "/fastcgi;\n  uwsgi_temp_path " + prefix + "/uwsgi;\n  scgi_temp_path " + prefix +
                "/scgi;\n  include " + prefix + "/site.conf;\n}\n");
  TavoChild front_({"-p", prefix, "-e", prefix + "/error.log", "-c", prefix + "/nginx.conf"},
                   dir / "nginx.err", nginx);
  ASSERT_TRUE(
      RunUntil([&] { return static_cast<bool>(httplib::Client("127.0.0.1", port).Get("/")); },
               std::chrono::seconds(60)))
      << ReadFile(prefix + "/error.log");

  const Names at = {"--plugin-service", front + "/ced"};
  auto with = [&](Names command) {
    command.insert(command.end(), at.begin(), at.end());
    return command;
  };
  ASSERT_EQ(tavo(with({"plugin", "install", "--provider", "demo", "--version", "1.0"})).status, 0);
  MakeGamePackage(dir / "g.zip", R"({"plugins":{"demo":{"provider":"demo","version":"1.0"}}})");
  ASSERT_EQ(tavo({"install", "--app", "g", "--version", "1", "--package", dir / "g.zip"}).status,
            0);

  // A newer package of the same version: the running game's hash query finds it, and it is
  // prefetched into the package cache; the next check installs it.
  MakeZip(pk + "/demo_1.0.zip", {{"main.js", "revision 2"}});
  const std::string prefetched = root + "/tmp/" + Md5(pk + "/demo_1.0.zip") + "_demo_1.0.zip";
  {
    TavoChild game(with({"run", "--app", "g", "--version", "1", "--hold", "120", "--root", root}),
                   dir / "run.err");
    EXPECT_TRUE(RunUntil([&] { return Exists(prefetched); }, std::chrono::seconds(60)))
        << ReadFile(dir / "one.log");
    EXPECT_EQ(game.interrupt(), 0) << ReadFile(dir / "run.err");
  }
  EXPECT_EQ(tavo({"plugin", "check", "--provider", "demo", "--version", "1.0"}).status, 0);
  EXPECT_EQ(ReadFile(root + "/Caches/plugin/demo_1.0/main.js"), "revision 2");

  // Each replica answered a query, and neither served a package.
  EXPECT_EQ(front_.interrupt(), 0);
  for (ServedPlugins* replica : {&one, &two}) EXPECT_TRUE(replica->stop());
  for (const std::string& log : {ReadFile(dir / "one.log"), ReadFile(dir / "two.log")}) {
    EXPECT_NE(log.find("POST /ced/runtime/plugin/"), std::string::npos) << log;
    EXPECT_EQ(log.find("GET "), std::string::npos) << log;
  }
  EXPECT_NE(ReadFile(prefix + "/access.log").find("GET /plugins/demo_1.0.zip "), std::string::npos);
}

}  // namespace
