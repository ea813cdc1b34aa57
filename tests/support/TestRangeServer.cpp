#include "support/TestRangeServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace {

// The value of a request header (names compare case-insensitively), or "".
std::string header(const std::string& head, const std::string& name) {
  const std::string key = "\r\n" + name + ":";
  const auto same = [](unsigned char a, unsigned char b) {
    return std::tolower(a) == std::tolower(b);
  };
  const auto at = std::search(head.begin(), head.end(), key.begin(), key.end(), same);
  if (at == head.end()) return "";
  auto start = static_cast<size_t>(at - head.begin()) + key.size();
  while (start < head.size() && head[start] == ' ') ++start;
  return head.substr(start, head.find("\r\n", start) - start);
}

bool sendAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

TestRangeServer::TestRangeServer(std::string body, std::function<Reply(int)> reply)
    : body_(std::move(body)), reply_(std::move(reply)) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  socklen_t length = sizeof address;
  if (::bind(listener_, raw, length) || ::listen(listener_, 16)) std::abort();
  ::getsockname(listener_, raw, &length);
  url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/package";
  thread_ = std::thread([this] {
    for (;;) {
      const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) return;  // woken by the destructor
      serve(connection);
      ::close(connection);
      ++finished_;
    }
  });
}

TestRangeServer::~TestRangeServer() {
  stopping_ = true;
  ::shutdown(listener_, SHUT_RDWR);
  thread_.join();
  ::close(listener_);
}

void TestRangeServer::serveFile(std::string path, std::chrono::milliseconds chunkDelay) {
  std::lock_guard lock(mutex_);
  bodyPath_ = std::move(path);
  chunkDelay_ = chunkDelay;
}

void TestRangeServer::setBody(std::string body) {
  std::lock_guard lock(mutex_);
  body_ = std::move(body);
}

std::vector<std::string> TestRangeServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

void TestRangeServer::serve(int connection) {
  std::string head;
  char buffer[4096];
  while (head.find("\r\n\r\n") == std::string::npos) {
    const ssize_t n = ::recv(connection, buffer, sizeof buffer, 0);
    if (n <= 0) return;
    head.append(buffer, static_cast<size_t>(n));
  }
  const std::string range = header(head, "Range"), ifRange = header(head, "If-Range");
  int index;
  std::string body, path;
  std::chrono::milliseconds delay;
  {
    std::lock_guard lock(mutex_);
    index = static_cast<int>(requests_.size());
    requests_.push_back(range + "|" + ifRange);
    body = body_;
    path = bodyPath_;
    delay = chunkDelay_;
  }
  const Reply reply = reply_ ? reply_(index) : Reply{};
  int fd = -1;
  int64_t size = static_cast<int64_t>(body.size());
  if (!path.empty()) {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info {};
    ::fstat(fd, &info);
    size = info.st_size;
  }
  const std::string etag = reply.etag.empty() ? "" : "\"" + reply.etag + "\"";
  int64_t from = 0;
  std::string status = "200 OK", extra;
  if (reply.ranges && range.rfind("bytes=", 0) == 0 && (ifRange.empty() || ifRange == etag)) {
    from = std::min<int64_t>(std::atoll(range.c_str() + 6), size);
    status = "206 Partial Content";
    extra = "Content-Range: bytes " + std::to_string(from) + "-" + std::to_string(size - 1) + "/" +
            std::to_string(size) + "\r\n";
  }
  if (!reply.status.empty()) status = reply.status;
  const std::string response =
      "HTTP/1.1 " + status +
      "\r\nContent-Length: " + (reply.length.empty() ? std::to_string(size - from) : reply.length) +
      "\r\n" + extra + (etag.empty() ? "" : "ETag: " + etag + "\r\n") + "Connection: close\r\n\r\n";
  if (!sendAll(connection, response.data(), response.size())) return;
  const int64_t end = reply.cutAt >= 0 ? std::min(reply.cutAt, size) : size;
  std::string chunk;
  for (int64_t at = from; at < end && !stopping_;) {
    const int64_t n = std::min<int64_t>(end - at, 1 << 20);
    if (fd >= 0) {
      chunk.resize(static_cast<size_t>(n));
      if (::pread(fd, chunk.data(), chunk.size(), at) != n) break;
    } else {
      chunk.assign(body, static_cast<size_t>(at), static_cast<size_t>(n));
    }
    if (!sendAll(connection, chunk.data(), chunk.size())) break;
    sent_ += n;
    at += n;
    if (delay.count() > 0) std::this_thread::sleep_for(delay);
  }
  // A cut closes the connection early: the client sees a body shorter than declared. A reset
  // (close() sending RST) may discard bytes already counted as sent: a lost connection.
  const linger abort{1, 0};
  if (reply.reset) ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  if (fd >= 0) ::close(fd);
}
