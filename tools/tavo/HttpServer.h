#pragma once

#include <array>
#include <asio.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "HttpMessage.h"

class HttpConnection;

// What one client may hold of the server, and for how long.
struct HttpLimits {
  std::size_t maxHeadBytes = 16 * 1024;
  // A hash query of a game with 1,000 plug-ins is about 140 KB.
  std::size_t maxBodyBytes = 1024 * 1024;
  // A request's head must arrive within this from its first byte (and a new connection's first
  // byte within this too); then its body within this again.
  std::chrono::seconds requestTimeout{10};
  // How long a kept-alive connection may wait for its next request.
  std::chrono::seconds idleTimeout{30};
  // How long a response may go without any of it being taken by the client.
  std::chrono::seconds sendTimeout{30};
  // Beyond this, a new client takes the place of the connection idle longest, or else of the
  // one slowest to send its request head; with neither, it is turned away.
  std::size_t maxConnections = 4096;
};

// HttpServer is the HTTP/1.1 server of `tavo serve`. One event loop (Asio, on a thread of its
// own) holds every connection, so an idle or slow client costs a little memory, never a thread,
// and deadlines end those that dawdle. Each complete request goes to the handler on a small
// pool of worker threads, so a slow answer (the MD5 of a large package) never stalls the loop.
//
// bind(), then start(); stop() from any other thread (the destructor stops it). The handler
// runs on the worker threads, several requests at once; `log` runs on the loop thread, one line
// per response and per connection ended for a missed deadline.
class HttpServer {
 public:
  using Handler = std::function<HttpResponse(HttpRequest&)>;
  using Log = std::function<void(const std::string&)>;

  HttpServer(HttpLimits limits, Handler handler, Log log);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Listens on `address` (an IPv4 or IPv6 literal) at `port` (0: a free one); the reason when it
  // cannot.
  std::optional<std::string> bind(const std::string& address, int port);
  int port() const { return port_; }
  void start();
  void stop();

 private:
  friend class HttpConnection;
  using Clock = std::chrono::steady_clock;

  void accept();
  void admit(asio::ip::tcp::socket socket);
  // Ends the connection that is least use to keep; false when every one is busy.
  bool makeRoom();
  void sweep();
  // Runs the handler on a worker, then hands the response back on the loop.
  void dispatch(std::shared_ptr<HttpConnection> connection, HttpRequest request);
  void forget(HttpConnection& connection);

  const HttpLimits limits_;
  const Handler handler_;
  const Log log_;
  asio::io_context loop_;
  asio::ip::tcp::acceptor acceptor_{loop_};
  asio::steady_timer sweeper_{loop_};
  asio::steady_timer acceptRetry_{loop_};
  std::list<std::shared_ptr<HttpConnection>> connections_;
  // Every read lands here first, and only what a request still needs is kept: the loop is one
  // thread, and an idle connection holds no buffer.
  std::array<char, 64 * 1024> scratch_{};
  asio::thread_pool workers_;
  std::thread thread_;
  int port_ = -1;
};
