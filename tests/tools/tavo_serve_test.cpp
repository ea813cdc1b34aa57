// `tavo serve` as clients on a network meet it: the runtime's queries, hostile and slow
// clients, byte ranges, and the production shape behind nginx.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <httplib.h>

#include "TavoCli.h"
#include "support/TestHttpServer.h"
#include "support/TestSigner.h"
#include "support/TestZip.h"

namespace {

sockaddr_in Loopback(int port) {
  return {.sin_family = AF_INET,
          .sin_port = htons(static_cast<uint16_t>(port)),
          .sin_addr = {htonl(INADDR_LOOPBACK)},
          .sin_zero = {}};
}

// A client connection to 127.0.0.1:port that writes and reads raw bytes.
struct Connection {
  // Connected, it sends `first`.
  explicit Connection(int port, const std::string& first = "") {
    const sockaddr_in address = Loopback(port);
    EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
        << "cannot connect to port " << port;
    send(first);
  }
  ~Connection() { ::close(fd); }

  bool send(const std::string& bytes) {
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // What arrives until it holds `until`, the server closes, or 10 s pass.
  std::string read(const std::string& until) {
    std::string got;
    pollfd ready{fd, POLLIN, 0};
    char chunk[65536];
    for (ssize_t n; !Has(got, until) && ::poll(&ready, 1, 10000) == 1 &&
                    (n = ::recv(fd, chunk, sizeof chunk, 0)) > 0;) {
      got.append(chunk, n);
    }
    return got;
  }

  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

// A query body as the runtime writes it: its pairs in their order, values raw, the list last.
std::string QueryBody(const std::string& query, const ZMValue& list,
                      const std::string& deviceId = "device-1") {
  return "client_id=merin&device_id=" + deviceId + (query == "hash" ? "&game_id=g" : "") +
         "&app_bundle_id=tavo&client_version=1.0.0&cpu_abi=x86_64&os=iOS&os_version=12" +
         "&plugin_list=" + list.dump(2);
}

struct TavoServe : TavoCli {
  void SetUp() override { std::filesystem::create_directories(pk); }
  std::string pk = dir / "pk";
};

TEST_F(TavoServe, OversizedBodiesAreRefusedUnreadAndRequestsLoggedEscaped) {
  ServedPlugins service(pk, dir / "serve.log");
  const std::string post = "POST /ced/runtime/plugin/hash HTTP/1.1\r\nHost: h\r\n";
  // Declared too large: refused from the head, before a byte of the body is sent.
  Connection declared(service.port, post + "Content-Length: 268435456\r\n\r\n");
  // Chunked: refused once it grows past the limit (1 MiB).
  Connection chunked(service.port, post + "Transfer-Encoding: chunked\r\n\r\n");
  for (int i = 0; i < 17; ++i) chunked.send("10000\r\n" + std::string(65536, 'x') + "\r\n");
  for (Connection* refused : {&declared, &chunked}) {
    const std::string reply = refused->read("}");
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 413 ")) << reply;
    EXPECT_TRUE(Has(reply, "\r\n\r\n{\"code\":413,")) << reply;
  }
  Connection escape(service.port, "GET /ced/packages/\x1b]0;owned\x07 HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(Has(escape.read("}"), " 404 "));

  EXPECT_EQ(service.end(SIGINT), 0);
  const std::string log = ReadFile(dir / "serve.log");
  const std::string refused = "POST /ced/runtime/plugin/hash 413, ";
  EXPECT_TRUE(Has(log, refused + "a body of 268435456 bytes is over the limit of 1048576 bytes\n"));
  EXPECT_TRUE(Has(log, refused + "the body grew past the limit")) << log;
  EXPECT_TRUE(Has(log, "GET /ced/packages/\\x1B]0;owned\\x07 404")) << log;
  EXPECT_FALSE(Has(log, "\x1b"));
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
    std::deque<Connection> idle, slow;
    for (int i = 0; i < 1000; ++i) {  // kept alive after one request each
      ASSERT_TRUE(Has(idle.emplace_back(service.port, head).read("\r\n\r\n"), " 200 OK")) << i;
    }
    for (int i = 0; i < 64; ++i) {  // in the middle of their heads
      slow.emplace_back(service.port, "GET /ced/packages/demo_1.0.zip HTTP/1.1\r\nX-Slow: ");
    }
    Connection fresh(service.port, "GET /ced/packages/demo_1.0.zip HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(fresh.read("\r\n\r\nzip").ends_with("\r\n\r\nzip"))
        << "a new client is not answered";
  }

  // At the connection cap a new client takes the place of an idle one; a head that
  // dribbles in is cut off at its deadline.
  ServedPlugins capped(pk, dir / "capped.log",
                       {"--max-connections", "4", "--request-timeout", "1"});
  std::deque<Connection> held;
  for (int i = 0; i < 4; ++i) held.emplace_back(capped.port, head).read("\r\n\r\n");
  Connection newcomer(capped.port, head);
  EXPECT_TRUE(Has(newcomer.read("\r\n\r\n"), " 200 OK"));
  std::vector<pollfd> idle;
  for (const auto& connection : held) idle.push_back({connection.fd, POLLIN, 0});
  EXPECT_EQ(::poll(idle.data(), idle.size(), 10000), 1) << "one idle connection is closed";
  Connection dribbling(capped.port, "GET / HTTP/1.1\r\n");
  bool cutOff = false;
  for (int i = 0; i < 50 && !cutOff; ++i) {  // a header line every 0.2 s, for 10 s at most
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    cutOff = !dribbling.send("X-Slow: 1\r\n");
  }
  EXPECT_TRUE(cutOff);
  EXPECT_EQ(capped.end(SIGINT), 0);
  EXPECT_TRUE(Has(ReadFile(dir / "capped.log"),
                  "closed a connection that sent no complete request head within 1 s"));
}

TEST_F(TavoServe, QueriesRangesAndThePluginCycleAgainstOneDirectory) {
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
  // The runtime's queries: the table's hand-made ones here, the runtime's own below.
  const std::string md5 = Md5(pk + "/demo_1.0.zip");
  const ZMValue demoId = {{"plugin_id", "demo"}, {"version", "1.0"}};
  ZMValue game = ZMValue::array();  // a game with 1,000 installed plug-ins, demo's stale
  for (int i = 0; i < 999; ++i) {
    game.push_back({{"plugin_id", "p" + std::to_string(i)}, {"version", "1.0"}, {"hash", md5}});
  }
  game.push_back({{"plugin_id", "demo"}, {"version", "1.0"}, {"hash", "0"}});
  const ZMValue oddId = {{"plugin_id", odd}, {"version", "1.0"}};
  const ZMValue fake = {{"plugin_id", "x&plugin_list=[]"}, {"version", "1"}};
  const ZMValue current = {{"plugin_id", "demo"}, {"version", "1.0"}, {"hash", md5}};
  // Query, body, status and code, and the package listed with its URL ("" for none).
  for (const auto& [query, form, code, file] :
       std::vector<std::tuple<std::string, std::string, int, std::string>>{
           {"hash", QueryBody("hash", game), 200, "demo_1.0.zip"},
           {"hash", QueryBody("hash", ZMValue::array({current})), 200, ""},
           {"url", QueryBody("url", ZMValue::array({fake, demoId})), 200, "demo_1.0.zip"},
           {"url", QueryBody("url", ZMValue::array({demoId}), "a&b=c&os=x"), 200, "demo_1.0.zip"},
           {"url", QueryBody("url", ZMValue::array({oddId})), 200, "a%20b%23c%3Fd%25e_1.0.zip"},
           {"url", R"(plugin_list=[{"plugin_id":"demo","version":"1.0"}])", 400, ""},
           {"url", QueryBody("url", ZMValue::array({demoId})).substr(0, 150), 400, ""},
       }) {
    // The runtime's HTTP client sends the form content type.
    const auto reply =
        client.Post("/ced/runtime/plugin/" + query, form, "application/x-www-form-urlencoded");
    ASSERT_TRUE(reply) << form.substr(0, 80);
    EXPECT_EQ(reply->status, code) << form.substr(0, 80);
    const ZMValue answer = ZMValue::parse(reply->body, nullptr, false);
    EXPECT_EQ(answer["code"], code) << reply->body;
    Names urls;
    for (const auto& result : answer.value("plugin_results", ZMValue::array())) {
      urls.push_back(result["url"]);
    }
    EXPECT_EQ(urls, file.empty() ? Names{} : Names{service.url + "/packages/" + file})
        << form.substr(0, 80);
  }

  // Range, status, Content-Range and the part of the body.
  for (const auto& [range, status, contentRange, first, length] :
       std::vector<std::tuple<std::string, int, std::string, std::size_t, std::size_t>>{
           {"bytes=332-432", 416, "bytes */232", 0, 0},
           {"bytes=232-", 416, "bytes */232", 0, 0},
           {"bytes=228-332", 206, "bytes 228-231/232", 228, 4},
           {"bytes=-10", 206, "bytes 222-231/232", 222, 10},
           {"bytes=0-", 206, "bytes 0-231/232", 0, 232},
           {"bytes=5-2", 200, "", 0, 232},
           {"bytes=0-1,4-5", 200, "", 0, 232},
       }) {
    const auto reply = client.Get("/ced/packages/r_1.0.zip", {{"Range", range}});
    ASSERT_TRUE(reply) << range;
    EXPECT_EQ(reply->status, status) << range;
    EXPECT_EQ(reply->get_header_value("Content-Range"), contentRange) << range;
    EXPECT_TRUE(status == 416 || reply->body == body.substr(first, length)) << range;
  }

  // `tavo plugin` against it, as the fallback when the primary cannot be reached.
  const auto plugin = [&](const Names& args) {
    return With(With({"plugin"}, args),
                {"--plugin-service", "http://127.0.0.1:1/ced", "--plugin-service", service.url});
  };
  const ZMValue demo = {{"provider", "demo"}, {"version", "1.0"}};
  const std::string plugins = root + "/Caches/plugin/";
  EXPECT_EQ(trace(plugin({"install", "--provider", "demo", "--version", "1.0"})).last(),
            (ZMValue{{"event", "onPluginInstallSuccess"}, {"args", {demo}}}));
  EXPECT_EQ(ReadFile(plugins + "demo_1.0/main.js"), "console.log(1)");
  EXPECT_EQ(
      trace(plugin({"list"})).last()["args"][0],
      ZMValue::array({{{"provider", "demo"}, {"version", "1.0"}, {"path", plugins + "demo_1.0"}}}));
  EXPECT_EQ(trace(plugin({"check", "--info", demo.dump()})).events(),
            (Names{"onInitializeSuccess", "onCheckPluginVersionStart", "onCheckPluginSuccess"}));
  EXPECT_EQ(trace(plugin({"remove", "--provider", "demo", "--version", "1.0"})).events(),
            (Names{"onInitializeSuccess", "onPluginRemoveStart", "onPluginRemoveFinish",
                   "onPluginRemoveSuccess"}));
  // --info goes to the manager as given.
  Result r = tavo(plugin({"install", "--info", R"({"provider":"demo"})", "--trace"}));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.events(),
            (Names{"onInitializeSuccess", "onPluginInstallStart", "onPluginInstallFailure"}));

  // A name that needs percent-encoding in a URL installs like any other; a host that trusts a
  // key gets the signature beside the package (its URL with ".minisig" added), or refuses.
  EXPECT_EQ(tavo(plugin({"install", "--provider", odd, "--version", "1.0"})).status, 0);
  EXPECT_EQ(ReadFile(plugins + odd + "_1.0/main.js"), odd);
  const Names trust = {"--trust-key", signer.publicKey()};
  trace(plugin(With({"install", "--provider", "signed one", "--version", "1.0"}, trust)));
  EXPECT_EQ(ReadFile(plugins + "signed one_1.0/main.js"), "signed");
  std::filesystem::remove_all(plugins + odd + "_1.0");
  r = tavo(plugin(With({"install", "--provider", odd, "--version", "1.0"}, trust)));
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(Has(r.err, "package signature missing: " + service.url +
                             "/packages/a%20b%23c%3Fd%25e_1.0.zip.minisig"))
      << r.err;
  EXPECT_FALSE(Exists(plugins + odd + "_1.0"));

  EXPECT_EQ(service.end(SIGINT), 0);
  const std::string log = ReadFile(dir / "serve.log");
  EXPECT_TRUE(Has(log, "POST /ced/runtime/plugin/url 200, code 200, 1 result(s)"));
  EXPECT_TRUE(Has(log, "GET /ced/packages/demo_1.0.zip 200")) << log;
}

// A port that was free a moment ago.
int FreePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);  // throws when `from` is missing
}

// The README's production shape: nginx serves the packages and balances the queries over two
// replicas. A running game gets its plug-in's update prefetched through it.
TEST_F(TavoServe, NginxServesPackagesAndBalancesQueriesOverTwoReplicas) {
  const std::string nginx = "/usr/sbin/nginx";
  if (::access(nginx.c_str(), X_OK) != 0) {
    GTEST_SKIP() << "nginx is not installed (Debian: nginx-light; scripts/setup.sh installs it)";
  }
  const std::string site = ReadFile(TAVO_SOURCE_DIR "/examples/plugin_service/nginx.conf");
  EXPECT_TRUE(Has(ReadFile(TAVO_SOURCE_DIR "/README.md"), site))
      << "the README shows examples/plugin_service/nginx.conf as it is";
  MakeZip(pk + "/demo_1.0.zip", {{"main.js", "revision 1"}});
  const int port = FreePort();
  const std::string front = "http://127.0.0.1:" + std::to_string(port);
  const Names args = {"--package-url", front + "/plugins"};
  ServedPlugins one(pk, dir / "one.log", args), two(pk, dir / "two.log", args);
  std::string conf = Replaced(site, "listen 80;", "listen 127.0.0.1:" + std::to_string(port) + ";");
  conf = Replaced(conf, "127.0.0.1:8701", "127.0.0.1:" + std::to_string(one.port));
  conf = Replaced(conf, "127.0.0.1:8702", "127.0.0.1:" + std::to_string(two.port));
  WriteFile(dir / "site.conf", Replaced(conf, "/srv/plugins/", pk + "/"));
  // One unprivileged process; its relative paths are under its prefix, the test's directory.
  WriteFile(dir / "nginx.conf", R"(daemon off; master_process off; pid nginx.pid; events {}
http { access_log access.log; include site.conf; client_body_temp_path body; proxy_temp_path proxy;
       fastcgi_temp_path fastcgi; uwsgi_temp_path uwsgi; scgi_temp_path scgi; })");
  TavoChild front_({"-p", dir.path(), "-e", dir / "error.log", "-c", dir / "nginx.conf"},
                   dir / "nginx.err", nginx);
  const auto up = [&] { return httplib::Client("127.0.0.1", port).Get("/") != nullptr; };
  ASSERT_TRUE(RunUntil(up, std::chrono::seconds(60))) << ReadFile(dir / "error.log");

  const Names at = {"--plugin-service", front + "/ced"};
  trace(With({"plugin", "install", "--provider", "demo", "--version", "1.0"}, at));
  MakeGamePackage(dir / "g.zip", R"({"plugins":{"demo":{"provider":"demo","version":"1.0"}}})");
  trace({"install", "--app", "g", "--version", "1", "--package", dir / "g.zip"});

  // A newer package of the same version: the running game's hash query finds it, and it is
  // prefetched into the package cache; the next check installs it.
  MakeZip(pk + "/demo_1.0.zip", {{"main.js", "revision 2"}});
  const std::string prefetched = root + "/tmp/" + Md5(pk + "/demo_1.0.zip") + "_demo_1.0.zip";
  {
    TavoChild game =
        background(With({"run", "--app", "g", "--version", "1", "--hold", "120"}, at), "run.err");
    EXPECT_TRUE(RunUntil([&] { return Exists(prefetched); }, std::chrono::seconds(60)))
        << ReadFile(dir / "one.log");
    EXPECT_EQ(game.end(SIGINT), 0) << ReadFile(dir / "run.err");
  }
  EXPECT_EQ(tavo({"plugin", "check", "--provider", "demo", "--version", "1.0"}).status, 0);
  EXPECT_EQ(ReadFile(root + "/Caches/plugin/demo_1.0/main.js"), "revision 2");

  // Each replica answered a query, and neither served a package.
  EXPECT_EQ(front_.end(SIGINT), 0);
  for (ServedPlugins* replica : {&one, &two}) EXPECT_EQ(replica->end(SIGINT), 0);
  for (const std::string& log : {ReadFile(dir / "one.log"), ReadFile(dir / "two.log")}) {
    EXPECT_TRUE(Has(log, "POST /ced/runtime/plugin/")) << log;
    EXPECT_FALSE(Has(log, "GET ")) << log;
  }
  EXPECT_TRUE(Has(ReadFile(dir / "access.log"), "GET /plugins/demo_1.0.zip "));
}

}  // namespace
