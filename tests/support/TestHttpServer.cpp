#include "support/TestHttpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

std::string TestHttpServer::Request::header(const std::string& name) const {
  auto it = headers.find(name);
  return it == headers.end() ? std::string() : it->second;
}

TestHttpServer::TestHttpServer() : server_(std::make_unique<httplib::Server>()), scheme_("http") {}

TestHttpServer::TestHttpServer(const std::string& certificatePath, const std::string& keyPath)
    : server_(std::make_unique<httplib::SSLServer>(certificatePath.c_str(), keyPath.c_str())),
      scheme_("https") {}

TestHttpServer::~TestHttpServer() { stop(); }

TestHttpServer::Handler TestHttpServer::recording(Handler handler) {
  return [this, handler = std::move(handler)](const httplib::Request& req, httplib::Response& res) {
    {
      std::lock_guard lock(mutex_);
      requests_.push_back({req.method, req.path, req.body, req.headers});
    }
    handler(req, res);
  };
}

void TestHttpServer::Get(const std::string& pattern, Handler handler) {
  server_->Get(pattern, recording(std::move(handler)));
}

void TestHttpServer::Post(const std::string& pattern, Handler handler) {
  server_->Post(pattern, recording(std::move(handler)));
}

void TestHttpServer::start() {
  // Idle keep-alive connections hold up stop() for this long.
  server_->set_keep_alive_timeout(1);
  port_ = server_->bind_to_any_port("127.0.0.1");
  if (port_ <= 0) std::abort();
  // The socket listens from here on; connections wait in the backlog until the thread accepts.
  thread_ = std::thread([this] {
    server_->listen_after_bind();
    finished_ = true;
  });
}

void TestHttpServer::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  stopped_.notify_all();
  if (thread_.joinable()) {
    // stop() only acts on a server that is listening; the thread gets there at once.
    while (!server_->is_running() && !finished_) std::this_thread::yield();
    server_->stop();
    thread_.join();
  }
}

std::string TestHttpServer::url(const std::string& path) const {
  return scheme_ + "://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<TestHttpServer::Request> TestHttpServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::size_t TestHttpServer::requestCount() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
}

bool TestHttpServer::pause(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return !stopped_.wait_for(lock, timeout, [this] { return stopping_; });
}

std::string TestHttpServer::refusedURL(const std::string& path) {
  const int sock = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (sock < 0 || ::bind(sock, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::abort();
  }
  ::close(sock);  // bound but never listening: the port is free and refuses connections
  return "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + path;
}

ResettingServer::ResettingServer(std::size_t declared, std::size_t sent)
    : reply_("HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
             std::to_string(declared) + "\r\n\r\n" + PatternBody(sent)) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (listener_ < 0 || ::pipe2(wake_, O_CLOEXEC) != 0 ||
      ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 8) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::abort();
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

ResettingServer::~ResettingServer() {
  const char stop = 's';
  (void)!::write(wake_[1], &stop, 1);
  thread_.join();
  ::close(listener_);
  ::close(wake_[0]);
  ::close(wake_[1]);
}

std::string ResettingServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void ResettingServer::serve() {
  for (;;) {
    pollfd fds[2] = {{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) std::abort();
    if (fds[1].revents) return;
    if (!(fds[0].revents & POLLIN)) continue;
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    ++connections_;
    answer(connection);
    linger reset{1, 0};  // close() sends RST, not FIN
    ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    ::close(connection);
  }
}

void ResettingServer::answer(int connection) {
  // Waits at most 10 s for the client at each step, and gives up when asked to stop.
  const auto ready = [&](short events) {
    pollfd fds[2] = {{connection, events, 0}, {wake_[0], POLLIN, 0}};
    return ::poll(fds, 2, 10000) > 0 && !fds[1].revents && fds[0].revents;
  };
  std::string request;
  char buffer[4096];
  while (request.find("\r\n\r\n") == std::string::npos) {
    if (!ready(POLLIN)) return;
    const ssize_t n = ::recv(connection, buffer, sizeof buffer, 0);
    if (n <= 0) return;
    request.append(buffer, static_cast<std::size_t>(n));
  }
  const int on = 1;
  ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  for (std::size_t written = 0; written < reply_.size();) {
    if (!ready(POLLOUT)) return;
    const ssize_t n =
        ::send(connection, reply_.data() + written, reply_.size() - written, MSG_NOSIGNAL);
    if (n <= 0) return;
    written += static_cast<std::size_t>(n);
  }
}

void WriteSelfSignedCertificate(const std::string& certificatePath, const std::string& keyPath) {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* certificate = X509_new();
  if (!key || !certificate) std::abort();
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 24 * 3600);
  X509_set_pubkey(certificate, key);
  X509_NAME* name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(certificate, name);
  if (X509_sign(certificate, key, EVP_sha256()) == 0) std::abort();
  FILE* out = std::fopen(certificatePath.c_str(), "w");
  if (!out || PEM_write_X509(out, certificate) != 1) std::abort();
  std::fclose(out);
  out = std::fopen(keyPath.c_str(), "w");
  if (!out || PEM_write_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    std::abort();
  }
  std::fclose(out);
  X509_free(certificate);
  EVP_PKEY_free(key);
}

std::string PatternBody(std::size_t size) {
  std::string body(size, '\0');
  for (std::size_t i = 0; i < size; ++i) body[i] = static_cast<char>((i * 31 + i / 4096) % 251);
  return body;
}

TestHttpServer::Handler PartialBody(TestHttpServer& server, std::size_t declared,
                                    std::size_t sent, bool stall) {
  return [&server, declared, sent, stall](const httplib::Request&, httplib::Response& res) {
    res.set_content_provider(
        declared, "application/octet-stream",
        [&server, sent, stall, body = PatternBody(sent)](size_t offset, size_t,
                                                          httplib::DataSink& sink) {
          if (offset < sent) return sink.write(body.data() + offset, sent - offset);
          if (stall) server.pause(std::chrono::seconds(10));
          return false;
        });
  };
}

TestHttpServer::Handler ChunkedBody(std::size_t size) {
  return [size](const httplib::Request&, httplib::Response& res) {
    res.set_chunked_content_provider(
        "application/octet-stream",
        [size, body = PatternBody(size)](size_t offset, httplib::DataSink& sink) {
          if (offset >= size) {
            sink.done();
            return true;
          }
          return sink.write(body.data() + offset, std::min<size_t>(64 << 10, size - offset));
        });
  };
}
