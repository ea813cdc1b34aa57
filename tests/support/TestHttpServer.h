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
#include <vector>

// A cpp-httplib server on 127.0.0.1 at an ephemeral port. Register routes, then start(); the
// server runs on its own thread until the object goes away. Every request that reaches a route is
// recorded (with its body) before the route's handler runs, so a client that has its answer can
// read the record.
//
// Handlers that stall call pause(): it returns when its time is up or when the server stops,
// whichever comes first, so a stalled handler never outlives its test by more than that bound.
class TestHttpServer {
 public:
  struct Request {
    std::string method;
    std::string path;
    std::string body;
    httplib::Headers headers;
    std::string header(const std::string& name) const;
  };
  using Handler = httplib::Server::Handler;

  // Plain HTTP.
  TestHttpServer();
  // HTTPS with the certificate and key in these PEM files.
  TestHttpServer(const std::string& certificatePath, const std::string& keyPath);
  ~TestHttpServer();
  TestHttpServer(const TestHttpServer&) = delete;
  TestHttpServer& operator=(const TestHttpServer&) = delete;

  void Get(const std::string& pattern, Handler handler);
  void Post(const std::string& pattern, Handler handler);

  // Binds and starts serving.
  void start();
  void stop();

  int port() const { return port_; }
  std::string url(const std::string& path) const;

  std::vector<Request> requests() const;
  std::size_t requestCount() const;

  // Waits until `timeout` passes (true) or the server stops (false).
  bool pause(std::chrono::milliseconds timeout);

  // An http URL on 127.0.0.1 at a port where nothing listens.
  static std::string refusedURL(const std::string& path = "/");

 private:
  Handler recording(Handler handler);

  std::unique_ptr<httplib::Server> server_;
  std::string scheme_;
  std::thread thread_;
  int port_ = -1;
  std::atomic<bool> finished_{false};
  mutable std::mutex mutex_;
  std::condition_variable stopped_;
  bool stopping_ = false;
  std::vector<Request> requests_;
};

// A raw TCP server on 127.0.0.1 that answers every connection, one at a time, with a 200 whose
// Content-Length is `declared`, sends the first `sent` bytes of PatternBody and then resets the
// connection (RST): a connection lost mid-body, which a clean close cannot imitate (the client
// sees a short body then).
class ResettingServer {
 public:
  ResettingServer(std::size_t declared, std::size_t sent);
  ~ResettingServer();
  ResettingServer(const ResettingServer&) = delete;
  ResettingServer& operator=(const ResettingServer&) = delete;

  std::string url(const std::string& path) const;
  std::size_t connectionCount() const { return connections_.load(); }

 private:
  void serve();
  void answer(int connection);

  const std::string reply_;
  int listener_ = -1;
  int wake_[2] = {-1, -1};  // written to stop the server
  int port_ = -1;
  std::atomic<std::size_t> connections_{0};
  std::thread thread_;
};

// Writes a fresh self-signed certificate for 127.0.0.1 and its private key as PEM files: a
// certificate that no trust store accepts.
void WriteSelfSignedCertificate(const std::string& certificatePath, const std::string& keyPath);

// A body of `size` bytes that is not periodic at any small power of two.
std::string PatternBody(std::size_t size);

// A route whose response declares `declared` bytes of PatternBody and sends the first `sent`;
// then it stalls until the server stops (10 s at most) or, with `stall` false, hangs up.
TestHttpServer::Handler PartialBody(TestHttpServer& server, std::size_t declared,
                                    std::size_t sent, bool stall);
// A route whose response has no length: `size` bytes of PatternBody, chunked.
TestHttpServer::Handler ChunkedBody(std::size_t size);
