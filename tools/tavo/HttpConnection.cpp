#include "HttpConnection.h"

#include <sys/sendfile.h>

#include <algorithm>
#include <cerrno>

#include "HttpServer.h"
#include "HttpText.h"

namespace {

// Reads or writes in a row before the connection lets the others have the loop.
constexpr int kBurst = 16;
// How long a closing connection reads past what the client still sends, so that closing does
// not reset the connection before the client has read the response.
constexpr std::chrono::seconds kLinger{2};
constexpr std::size_t kSendfileChunk = 1 << 20;

bool WouldBlock(const asio::error_code& error) {
  return error == asio::error::would_block || error == asio::error::try_again;
}

}  // namespace

HttpConnection::HttpConnection(HttpServer& server, HttpServer::Loop& loop,
                               asio::ip::tcp::socket socket)
    : server_(server),
      loop_(loop),
      socket_(std::move(socket)),
      reader_(server.limits_.maxHeadBytes, server.limits_.maxBodyBytes) {}

void HttpConnection::start() {
  enter(Phase::Waiting, server_.limits_.requestTimeout);
  receive();
}

void HttpConnection::enter(Phase phase, std::optional<std::chrono::seconds> limit) {
  phase_ = phase;
  since_ = Clock::now();
  deadline_ = limit ? since_ + *limit : Clock::time_point::max();
}

void HttpConnection::receive() {
  for (int reads = 0; reads < kBurst; ++reads) {
    asio::error_code error;
    const std::size_t got = socket_.read_some(asio::buffer(loop_.scratch), error);
    if (WouldBlock(error)) {
      // Waiting only after the socket said it is drained: the loop wakes on new data alone.
      wait(asio::socket_base::wait_read);
      return;
    }
    if (error) {  // the client closed or reset the connection
      close();
      return;
    }
    if (phase_ == Phase::Closing) continue;  // read past
    input_.append(loop_.scratch.data(), got);
    if (!process()) return;
  }
  asio::post(socket_.get_executor(), [self = shared_from_this()] {
    if (self->phase_ != Phase::Closed) self->receive();
  });
}

bool HttpConnection::process() {
  const HttpLimits& limits = server_.limits_;
  if (phase_ == Phase::Waiting && !input_.empty()) enter(Phase::Head, limits.requestTimeout);
  for (;;) {
    switch (reader_.read(input_)) {
      case HttpRequestReader::Step::More:
        return true;
      case HttpRequestReader::Step::HeadRead: {
        enter(Phase::Body, limits.requestTimeout);
        if (!reader_.expectsContinue()) continue;
        // The client has sent nothing it waits on, so the socket has room for these bytes.
        constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
        asio::error_code error;
        if (socket_.write_some(asio::buffer(kContinue), error) != kContinue.size()) {
          close();
          return false;
        }
        continue;
      }
      case HttpRequestReader::Step::Done: {
        HttpRequest& request = reader_.request();
        method_ = request.method;
        target_ = request.target;
        keepAlive_ = reader_.keepAlive();
        http10_ = request.minorVersion == 0;
        enter(Phase::Handling, std::nullopt);
        server_.dispatch(shared_from_this(), std::move(request));
        return false;
      }
      case HttpRequestReader::Step::Failed:
        method_ = reader_.request().method;
        target_ = reader_.request().target;
        keepAlive_ = false;
        respond(reader_.failure());
        return false;
    }
  }
}

void HttpConnection::respond(HttpResponse response) {
  if (phase_ == Phase::Closed) return;
  log(response.status, response.note);
  closeAfter_ = response.close || !keepAlive_;
  const bool withBody = method_ != "HEAD";
  const int64_t length =
      response.file ? response.file->length : static_cast<int64_t>(response.body.size());
  out_ = "HTTP/1.1 " + std::to_string(response.status) + " " +
         std::string(ReasonPhrase(response.status)) + "\r\n";
  for (const auto& header : response.headers) out_ += header.name + ": " + header.value + "\r\n";
  out_ += "Content-Length: " + std::to_string(length) + "\r\n";
  if (closeAfter_) {
    out_ += "Connection: close\r\n";
  } else if (http10_) {
    out_ += "Connection: keep-alive\r\n";
  }
  out_ += "\r\n";
  if (withBody) {
    out_ += response.body;
    if (response.file) file_ = std::move(response.file);
  }
  outSent_ = 0;
  enter(Phase::Sending, server_.limits_.sendTimeout);
  send();
}

void HttpConnection::send() {
  for (int writes = 0; writes < kBurst; ++writes) {
    asio::error_code error;
    if (outSent_ < out_.size()) {
      outSent_ +=
          socket_.write_some(asio::buffer(out_.data() + outSent_, out_.size() - outSent_), error);
    } else if (file_ && file_->length > 0) {
      off_t offset = file_->offset;
      const auto chunk = static_cast<std::size_t>(
          std::min<int64_t>(file_->length, static_cast<int64_t>(kSendfileChunk)));
      const ssize_t wrote = ::sendfile(socket_.native_handle(), file_->file.get(), &offset, chunk);
      if (wrote > 0) {
        file_->offset += wrote;
        file_->length -= wrote;
      } else if (wrote < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        error = asio::error::would_block;
      } else {
        // The file shrank under us, or the socket failed: the promised length cannot be kept,
        // and only closing tells the client so.
        close();
        return;
      }
    } else {
      sent();
      return;
    }
    if (WouldBlock(error)) {
      wait(asio::socket_base::wait_write);
      return;
    }
    if (error) {
      close();
      return;
    }
    deadline_ = Clock::now() + server_.limits_.sendTimeout;
  }
  asio::post(socket_.get_executor(), [self = shared_from_this()] {
    if (self->phase_ != Phase::Closed) self->send();
  });
}

void HttpConnection::sent() {
  file_.reset();
  out_.clear();
  if (out_.capacity() > 4096) out_.shrink_to_fit();
  if (closeAfter_) {
    asio::error_code ignored;
    socket_.shutdown(asio::socket_base::shutdown_send, ignored);
    input_.clear();
    input_.shrink_to_fit();
    enter(Phase::Closing, kLinger);
    receive();
    return;
  }
  reader_.reset();
  enter(Phase::Waiting, server_.limits_.idleTimeout);
  // Posted rather than called: a client that sends requests back to back would otherwise have
  // them answered ever deeper down this stack.
  asio::post(socket_.get_executor(), [self = shared_from_this()] {
    // A request sent right behind the last one is already here.
    if (self->phase_ == Phase::Waiting && (self->input_.empty() || self->process())) {
      self->receive();
    }
  });
}

void HttpConnection::wait(asio::socket_base::wait_type type) {
  socket_.async_wait(type, [self = shared_from_this(), type](const asio::error_code& error) {
    if (self->phase_ == Phase::Closed) return;
    if (error) {
      self->close();
    } else if (type == asio::socket_base::wait_read) {
      self->receive();
    } else {
      self->send();
    }
  });
}

void HttpConnection::expire() {
  const auto seconds = std::to_string(server_.limits_.requestTimeout.count());
  if (phase_ == Phase::Head) {
    server_.log_("closed a connection that sent no complete request head within " + seconds + " s");
  } else if (phase_ == Phase::Body) {
    server_.log_(EscapeForLog(reader_.request().method) + " " +
                 EscapeForLog(reader_.request().target) + " closed: the body did not come within " +
                 seconds + " s");
  }
  close();
}

void HttpConnection::close() {
  if (phase_ == Phase::Closed) return;
  phase_ = Phase::Closed;
  deadline_ = Clock::time_point::max();
  asio::error_code ignored;
  socket_.close(ignored);  // pending waits end with operation_aborted
  file_.reset();
  loop_.connections.erase(slot);  // may drop the last reference but the caller's
}

void HttpConnection::log(int status, const std::string& note) {
  std::string line = EscapeForLog(method_.empty() ? "-" : method_) + " " +
                     EscapeForLog(target_.empty() ? "-" : target_) + " " + std::to_string(status);
  if (!note.empty()) line += ", " + note;
  server_.log_(line);
}
