#include "HttpServer.h"

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
      workers_(std::max(2u, std::thread::hardware_concurrency())) {}

HttpServer::~HttpServer() { stop(); }

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
  // Nothing runs the loop yet: starting its first operations from here is safe.
  accept();
  sweep();
  thread_ = std::thread([this] { loop_.run(); });
}

void HttpServer::stop() {
  if (!thread_.joinable()) return;
  asio::post(loop_, [this] {
    asio::error_code ignored;
    acceptor_.close(ignored);
    sweeper_.cancel();
    acceptRetry_.cancel();
    while (!connections_.empty()) {
      const auto connection = connections_.front();  // close() drops the list's reference
      connection->close();
    }
    // Answers still being made come back to a stopped loop and are dropped with it.
    loop_.stop();
  });
  thread_.join();
  workers_.join();
}

void HttpServer::accept() {
  acceptor_.async_accept([this](const asio::error_code& error, asio::ip::tcp::socket socket) {
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
    admit(std::move(socket));
    accept();
  });
}

void HttpServer::admit(asio::ip::tcp::socket socket) {
  if (connections_.size() >= limits_.maxConnections && !makeRoom()) {
    log_("turned a client away: all " + std::to_string(connections_.size()) +
         " connections are busy with requests");
    return;  // the socket closes as it goes
  }
  asio::error_code error;
  socket.non_blocking(true, error);
  // A response's last bytes must not wait for the client's acknowledgement of the ones before.
  if (!error) socket.set_option(asio::ip::tcp::no_delay(true), error);
  if (error) return;
  auto connection = std::make_shared<HttpConnection>(*this, std::move(socket));
  connection->slot = connections_.insert(connections_.end(), connection);
  connection->start();
}

bool HttpServer::makeRoom() {
  std::shared_ptr<HttpConnection> victim;
  int victimRank = -1;
  for (const auto& connection : connections_) {
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

void HttpServer::sweep() {
  sweeper_.expires_after(kSweepEvery);
  sweeper_.async_wait([this](const asio::error_code& error) {
    if (error) return;
    const auto now = Clock::now();
    std::vector<std::shared_ptr<HttpConnection>> expired;
    for (const auto& connection : connections_) {
      if (connection->deadline() <= now) expired.push_back(connection);
    }
    for (const auto& connection : expired) connection->expire();
    sweep();
  });
}

void HttpServer::dispatch(std::shared_ptr<HttpConnection> connection, HttpRequest request) {
  asio::post(
      workers_, [this, connection = std::move(connection), request = std::move(request)]() mutable {
        HttpResponse response;
        try {
          response = handler_(request);
        } catch (const std::exception& e) {
          response = HttpResponse::error(500, std::string("the answer failed: ") + e.what());
        }
        asio::post(loop_,
                   [connection = std::move(connection), response = std::move(response)]() mutable {
                     connection->respond(std::move(response));
                   });
      });
}

void HttpServer::forget(HttpConnection& connection) { connections_.erase(connection.slot); }
