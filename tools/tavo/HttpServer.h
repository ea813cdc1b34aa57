#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Asio.h"
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

// HttpServer is the HTTP/1.1 server of `tavo serve`. Event loops (Asio, one thread per core)
// hold the connections, each on one loop, so an idle or slow client costs a little memory, never
// a thread, and deadlines end those that dawdle. The handler answers a complete request on its
// loop when it can at once; what would stall the loop (the MD5 of a large package) it declines
// there, and is asked again on a small pool of worker threads.
//
// bind(), then start(); stop() from any other thread (the destructor stops it). The handler
// runs on the loops and the workers, several requests at once; `log` runs on the loops, also at
// once, one line per response and per connection ended for a missed deadline.
class HttpServer {
 public:
  // The answer to a request; with `mayBlock` false (on the loop), null when it cannot be made
  // at once.
  using Handler = std::function<std::optional<HttpResponse>(HttpRequest&, bool mayBlock)>;
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

  // One event loop and what lives on it. The connection cap is shared out between the loops,
  // so a full loop makes room among its own connections.
  struct Loop {
    asio::io_context context{1};
    asio::steady_timer sweeper{context};
    std::list<std::shared_ptr<HttpConnection>> connections;
    std::size_t maxConnections = 0;
    // Every read lands here first, and only what a request still needs is kept: an idle
    // connection holds no buffer.
    std::array<char, 64 * 1024> scratch{};
    std::thread thread;
  };
  static std::vector<std::unique_ptr<Loop>> MakeLoops(std::size_t maxConnections);

  // Accepts on the first loop, handing the connections to the loops in turn.
  void accept();
  void admit(Loop& loop, asio::ip::tcp::socket socket);
  // Ends the loop's connection that is least use to keep; false when every one is busy.
  bool makeRoom(Loop& loop);
  void sweep(Loop& loop);
  // Has the request answered on the loop, or else on a worker and the response handed back on
  // the loop.
  void dispatch(std::shared_ptr<HttpConnection> connection, HttpRequest request);
  // The handler's answer; a handler that throws answers 500.
  std::optional<HttpResponse> answer(HttpRequest& request, bool mayBlock);

  const HttpLimits limits_;
  const Handler handler_;
  const Log log_;
  std::vector<std::unique_ptr<Loop>> loops_;
  asio::ip::tcp::acceptor acceptor_{loops_.front()->context};
  asio::steady_timer acceptRetry_{loops_.front()->context};
  std::size_t nextLoop_ = 0;  // the first loop's
  asio::thread_pool workers_;
  bool started_ = false;
  int port_ = -1;
};
