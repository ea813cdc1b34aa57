// tavo_bench_idle_clients PORT PID [IDLE] [SLOW] — against `tavo serve` (process PID) on
// 127.0.0.1:PORT: opens IDLE connections (default 1000) that each make one request and then stay
// open, and SLOW connections (default 64) that send half a request head and stall; then times a
// new client's request, and prints that time and the server's peak resident memory.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

int Connect(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    std::perror("connect");
    std::exit(1);
  }
  return fd;
}

// Sends `request` and reads until the end of the response head; false after 10 s.
bool Ask(int fd, const std::string& request) {
  if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) return false;
  std::string got;
  char chunk[4096];
  pollfd ready{fd, POLLIN, 0};
  while (got.find("\r\n\r\n") == std::string::npos && ::poll(&ready, 1, 10000) == 1) {
    const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) return false;
    got.append(chunk, static_cast<std::size_t>(n));
  }
  return got.find("\r\n\r\n") != std::string::npos;
}

std::string PeakMemory(const std::string& pid) {
  std::ifstream status("/proc/" + pid + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return line.substr(6);
  }
  return "unknown";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s PORT PID [IDLE] [SLOW]\n", argv[0]);
    return 2;
  }
  const int port = std::atoi(argv[1]);
  const int idle = argc > 3 ? std::atoi(argv[3]) : 1000, slow = argc > 4 ? std::atoi(argv[4]) : 64;
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  const std::string head = "HEAD /ced/packages/bench_1.0.zip HTTP/1.1\r\nHost: bench\r\n\r\n";
  std::vector<int> held;
  for (int i = 0; i < idle; ++i) {
    held.push_back(Connect(port));
    if (!Ask(held.back(), head)) {
      std::fprintf(stderr, "idle connection %d was not answered\n", i);
      return 1;
    }
  }
  for (int i = 0; i < slow; ++i) {
    held.push_back(Connect(port));
    const std::string half = "GET /ced/packages/bench_1.0.zip HTTP/1.1\r\nX-Slow: ";
    ::send(held.back(), half.data(), half.size(), MSG_NOSIGNAL);
  }
  const auto began = std::chrono::steady_clock::now();
  const int fresh = Connect(port);
  const bool answered = Ask(fresh, head);
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
  std::printf(
      "with %d idle and %d slow-header connections: a new client %s in %.2f ms; "
      "server peak RSS%s\n",
      idle, slow, answered ? "answered" : "NOT answered", ms, PeakMemory(argv[2]).c_str());
  ::close(fresh);
  for (const int fd : held) ::close(fd);
  return answered ? 0 : 1;
}
