// tavo_bench_plugin_service DIR — a loopback plug-in service for plugin_requests_vs_curl.sh:
// answers POST <port>/ced/runtime/plugin/url and .../hash with fixed replies, writes the first
// body each path receives to DIR/url.body and DIR/hash.body (so that curl can send exactly the
// same bytes), prints "port N" once it listens, and runs until killed.
#include <httplib.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];
  httplib::Server server;
  auto route = [&](const char* name, std::string reply) {
    auto kept = std::make_shared<std::atomic<bool>>(false);
    server.Post(std::string("/ced/runtime/plugin/") + name,
                [=](const httplib::Request& request, httplib::Response& response) {
                  if (!kept->exchange(true)) {
                    std::ofstream(dir + "/" + name + ".body", std::ios::binary) << request.body;
                  }
                  response.set_content(reply, "application/json");
                });
  };
  route("url",
        R"({"code":200,"plugin_results":[{"plugin_id":"bench","version":"1.0",)"
        R"("hash":"0123456789abcdef0123456789abcdef","url":"http://127.0.0.1/bench.zip"}]})");
  route("hash", R"({"code":200,"plugin_results":[]})");
  const int port = server.bind_to_any_port("127.0.0.1");
  if (port <= 0) {
    std::fprintf(stderr, "cannot listen on 127.0.0.1\n");
    return 1;
  }
  std::printf("port %d\n", port);
  std::fflush(stdout);
  return server.listen_after_bind() ? 0 : 1;
}
