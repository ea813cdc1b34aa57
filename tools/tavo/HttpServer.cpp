#include "HttpServer.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <vector>

#include "HttpConnection.h"

namespace {

constexpr auto kSweepEvery = std::chrono::milliseconds(250);

// Which connection a new client displaces first: one already closing, then one idle between
// requests, then one still sending its head; the rest are being served and stay.
int EvictionRank(HttpConnection::Phase phase) {
  switch (phase) {
    case HttpConnection::Phase::Closing:
      return 0;
    case HttpConnection::Phase::Waiting:
      return 1;
    case HttpConnection::Phase::Head:
      return 2;
    default:
      return -1;
  }
}

}  // namespace

HttpServer::HttpServer(HttpLimits limits, Handler handler, Log log)
    : limits_(limits),
      handler_(std::move(handler)),
      log_(std::move(log)),
      loops_(MakeLoops(limits.maxConnections)),
      workers_(std::max(2u, std::thread::hardware_concurrency())) {}

HttpServer::~HttpServer() { stop(); }

std::vector<std::unique_ptr<HttpServer::Loop>> HttpServer::MakeLoops(std::size_t maxConnections) {
  const std::size_t count = std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1,
                                                    std::max<std::size_t>(1, maxConnections));
  std::vector<std::unique_ptr<Loop>> loops;
  for (std::size_t i = 0; i < count; ++i) {
    loops.push_back(std::make_unique<Loop>());
    loops.back()->maxConnections = maxConnections / count + (i < maxConnections % count ? 1 : 0);
  }
  return loops;
}

std::optional<std::string> HttpServer::bind(const std::string& address, int port) {
  asio::error_code error;
  const auto ip = asio::ip::make_address(address, error);
  if (error) return "not an IP address: " + address;
  const asio::ip::tcp::endpoint endpoint(ip, static_cast<unsigned short>(port));
  acceptor_.open(endpoint.protocol(), error);
  if (!error) acceptor_.set_option(asio::socket_base::reuse_address(true), error);
  if (!error) acceptor_.bind(endpoint, error);
  if (!error) acceptor_.listen(asio::socket_base::max_listen_connections, error);
  if (error) {
    asio::error_code ignored;
    acceptor_.close(ignored);
    return error.message();
  }
  port_ = acceptor_.local_endpoint().port();
  return std::nullopt;
}

void HttpServer::start() {
  // Nothing runs the loops yet: starting their first operations from here is safe.
  accept();
  for (auto& loop : loops_) {
    sweep(*loop);
    loop->thread = std::thread([&context = loop->context] {
      // sendfile(), unlike the socket writes, has no flag against SIGPIPE: blocked on the
      // threads that send, a client gone mid-file is an EPIPE, not the end of the process.
      sigset_t pipe;
      sigemptyset(&pipe);
      sigaddset(&pipe, SIGPIPE);
      pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
      context.run();
    });
  }
  started_ = true;
}

void HttpServer::stop() {
  if (!started_) return;
  started_ = false;
  for (auto& loop : loops_) {
    asio::post(loop->context, [this, &loop = *loop] {
      asio::error_code ignored;
      if (&loop == loops_.front().get()) {
        acceptor_.close(ignored);
        acceptRetry_.cancel();
      }
      loop.sweeper.cancel();
      while (!loop.connections.empty()) {
        const auto connection = loop.connections.front();  // close() drops the list's reference
        connection->close();
      }
      // Answers still being made come back to a stopped loop and are dropped with it.
      loop.context.stop();
    });
  }
  for (auto& loop : loops_) loop->thread.join();
  workers_.join();
}

void HttpServer::accept() {
  Loop& loop = *loops_[nextLoop_++ % loops_.size()];
  acceptor_.async_accept(
      loop.context, [this, &loop](const asio::error_code& error, asio::ip::tcp::socket socket) {
        if (!acceptor_.is_open()) return;
        if (error) {
          // Out of file descriptors, most likely: try again shortly rather than spin.
          log_("cannot accept a connection: " + error.message());
          acceptRetry_.expires_after(std::chrono::milliseconds(100));
          acceptRetry_.async_wait([this](const asio::error_code& cancelled) {
            if (!cancelled) accept();
          });
          return;
        }
        asio::post(loop.context, [this, &loop, socket = std::move(socket)]() mutable {
          admit(loop, std::move(socket));
        });
        accept();
      });
}

void HttpServer::admit(Loop& loop, asio::ip::tcp::socket socket) {
  if (loop.connections.size() >= loop.maxConnections && !makeRoom(loop)) {
    log_("turned a client away: all " + std::to_string(limits_.maxConnections) +
         " connections are busy with requests");
    return;  // the socket closes as it goes
  }
  asio::error_code error;
  socket.non_blocking(true, error);
  // A response's last bytes must not wait for the client's acknowledgement of the ones before.
  if (!error) socket.set_option(asio::ip::tcp::no_delay(true), error);
  if (error) return;
  auto connection = std::make_shared<HttpConnection>(*this, loop, std::move(socket));
  connection->slot = loop.connections.insert(loop.connections.end(), connection);
  connection->start();
}

bool HttpServer::makeRoom(Loop& loop) {
  std::shared_ptr<HttpConnection> victim;
  int victimRank = -1;
  for (const auto& connection : loop.connections) {
    const int rank = EvictionRank(connection->phase());
    if (rank < 0) continue;
    if (!victim || rank < victimRank ||
        (rank == victimRank && connection->since() < victim->since())) {
      victim = connection;
      victimRank = rank;
    }
  }
  if (!victim) return false;
  victim->close();
  return true;
}

void HttpServer::sweep(Loop& loop) {
  loop.sweeper.expires_after(kSweepEvery);
  loop.sweeper.async_wait([this, &loop](const asio::error_code& error) {
    if (error) return;
    const auto now = Clock::now();
    std::vector<std::shared_ptr<HttpConnection>> expired;
    for (const auto& connection : loop.connections) {
      if (connection->deadline() <= now) expired.push_back(connection);
    }
    for (const auto& connection : expired) connection->expire();
    sweep(loop);
  });
}

std::optional<HttpResponse> HttpServer::answer(HttpRequest& request, bool mayBlock) {
  try {
    auto response = handler_(request, mayBlock);
    if (response || !mayBlock) return response;
    return HttpResponse::error(500, "no answer");
  } catch (const std::exception& e) {
    return HttpResponse::error(500, std::string("the answer failed: ") + e.what());
  }
}

void HttpServer::dispatch(std::shared_ptr<HttpConnection> connection, HttpRequest request) {
  if (auto response = answer(request, false)) {
    connection->respond(std::move(*response));
    return;
  }
  auto executor = connection->executor();
  asio::post(workers_, [this, executor, connection = std::move(connection),
                        request = std::move(request)]() mutable {
    asio::post(executor, [connection = std::move(connection),
                          response = std::move(*answer(request, true))]() mutable {
      connection->respond(std::move(response));
    });
  });
}
