// Serves one file at any path, honouring "Range: bytes=N-" (under If-Range, or without one), and
// breaks every response at the next multiple of CUT bytes past its start: a network that drops
// the connection every CUT bytes. Prints "port N" first; then, for each line read on standard
// input, the body bytes sent so far; exits at the end of its input.
// Usage: tavo_bench_resume_server FILE CUT
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "support/TestRangeServer.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: tavo_bench_resume_server FILE CUT" << std::endl;
    return 2;
  }
  const int64_t cut = std::atoll(argv[2]);
  // Which byte each request starts at is not known here, so every answer breaks at the next
  // multiple of CUT after what was already sent in all: each request moves the file on by CUT.
  TestRangeServer* server = nullptr;
  TestRangeServer running(
      "", [&](int) { return TestRangeServer::Reply{.cutAt = (server->sent() / cut + 1) * cut}; });
  server = &running;
  running.serveFile(argv[1], std::chrono::milliseconds(0));
  const std::string url = running.url();
  std::cout << "port " << url.substr(url.rfind(':') + 1, url.find('/', 7) - url.rfind(':') - 1)
            << std::endl;
  for (std::string line; std::getline(std::cin, line);) std::cout << running.sent() << std::endl;
  return 0;
}
