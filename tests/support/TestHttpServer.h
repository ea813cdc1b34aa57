#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

// A cpp-httplib server on 127.0.0.1 at an ephemeral port. Register routes, then start(); the
// server runs on its own thread until the object goes away. A request is counted before its
// route's handler runs. Handlers that stall call pause(), which returns early when the server
// stops, so a stalled handler never outlives its test.
class TestHttpServer {
 public:
  using Handler = httplib::Server::Handler;

  // Plain HTTP.
  TestHttpServer();
  // HTTPS with the certificate and key in these PEM files.
  TestHttpServer(const std::string& certificatePath, const std::string& keyPath);
  ~TestHttpServer();
  TestHttpServer(const TestHttpServer&) = delete;
  TestHttpServer& operator=(const TestHttpServer&) = delete;

  void Get(const std::string& path, Handler h) { server_->Get(path, counted(std::move(h))); }
  void Post(const std::string& path, Handler h) { server_->Post(path, counted(std::move(h))); }
  void start();
  void stop();

  int port() const { return port_; }
  std::string url(const std::string& path) const;
  std::size_t requestCount() const { return requests_; }

  // Waits until `timeout` passes (true) or the server stops (false).
  bool pause(std::chrono::milliseconds timeout);

 private:
  Handler counted(Handler handler);

  std::unique_ptr<httplib::Server> server_;
  std::string scheme_;
  std::thread thread_;
  int port_ = -1;
  std::atomic<bool> finished_{false};
  std::atomic<std::size_t> requests_{0};
  std::mutex mutex_;
  std::condition_variable stopped_;
  bool stopping_ = false;
};

// A body of `size` bytes that is not periodic at any small power of two.
std::string PatternBody(std::size_t size);

// A route whose response declares `declared` bytes of PatternBody and sends the first `sent`;
// then it stalls until the server stops (10 s at most) or, with `stall` false, hangs up.
TestHttpServer::Handler PartialBody(TestHttpServer& server, std::size_t declared, std::size_t sent,
                                    bool stall);

// A route whose response sends `body` one byte every `interval`, chunked, until it is all sent or
// the server stops: a peer that never stalls long enough to be idle, and never finishes.
TestHttpServer::Handler Drip(TestHttpServer& server, std::string body,
                             std::chrono::milliseconds interval);
