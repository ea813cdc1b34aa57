#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "Asio.h"
#include "HttpMessage.h"
#include "HttpRequestReader.h"

#include "HttpServer.h"

// HttpConnection is one client of HttpServer: it reads a request, has the server's handler
// answer it, sends the response, and then waits for the next request on the same connection
// (or lingers briefly and closes). Each phase has a deadline, which the server's sweep enforces.
// Lives on its loop's thread only; the loop's list and its pending operations own it.
class HttpConnection : public std::enable_shared_from_this<HttpConnection> {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Phase { Waiting, Head, Body, Handling, Sending, Closing, Closed };

  HttpConnection(HttpServer& server, HttpServer::Loop& loop, asio::ip::tcp::socket socket);
  void start();
  // Ends the connection at once, without a word to the client.
  void close();
  // The phase's deadline has passed.
  void expire();
  // Hands over the handler's answer to the request read last.
  void respond(HttpResponse response);

  Phase phase() const { return phase_; }
  asio::any_io_executor executor() { return socket_.get_executor(); }
  Clock::time_point since() const { return since_; }
  Clock::time_point deadline() const { return deadline_; }

  std::list<std::shared_ptr<HttpConnection>>::iterator slot;  // in the server's list

 private:
  void enter(Phase phase, std::optional<std::chrono::seconds> limit);
  // Reads what has arrived and acts on it; waits when nothing has.
  void receive();
  // Acts on the input held; false when it needs no more input for now.
  bool process();
  // Writes what is left of the response; waits while the client's window is full.
  void send();
  void sent();
  void wait(asio::socket_base::wait_type type);
  void log(int status, const std::string& note);

  HttpServer& server_;
  HttpServer::Loop& loop_;
  asio::ip::tcp::socket socket_;
  HttpRequestReader reader_;
  std::string input_;
  Phase phase_ = Phase::Waiting;
  Clock::time_point since_;
  Clock::time_point deadline_;
  // The request being answered.
  std::string method_, target_;
  bool keepAlive_ = false;
  bool http10_ = false;
  // The response being sent: out_ from outSent_ on, then file_.
  std::string out_;
  std::size_t outSent_ = 0;
  std::optional<HttpResponse::FileBody> file_;
  bool closeAfter_ = false;
};
