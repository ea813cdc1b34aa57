#include "support/TestHttpServer.h"

#include <cstdlib>

TestHttpServer::TestHttpServer() : server_(std::make_unique<httplib::Server>()), scheme_("http") {}

TestHttpServer::TestHttpServer(const std::string& certificatePath, const std::string& keyPath)
    : server_(std::make_unique<httplib::SSLServer>(certificatePath.c_str(), keyPath.c_str())),
      scheme_("https") {}

TestHttpServer::~TestHttpServer() { stop(); }

TestHttpServer::Handler TestHttpServer::counted(Handler handler) {
  return [this, handler = std::move(handler)](const auto& req, auto& res) {
    ++requests_;
    handler(req, res);
  };
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

bool TestHttpServer::pause(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return !stopped_.wait_for(lock, timeout, [this] { return stopping_; });
}

std::string PatternBody(std::size_t size) {
  std::string body(size, '\0');
  for (std::size_t i = 0; i < size; ++i) body[i] = static_cast<char>((i * 31 + i / 4096) % 251);
  return body;
}

TestHttpServer::Handler PartialBody(TestHttpServer& server, std::size_t declared, std::size_t sent,
                                    bool stall) {
  return [&server, declared, sent, stall](const httplib::Request&, httplib::Response& res) {
    res.set_content_provider(declared, "application/octet-stream",
                             [&server, sent, stall, body = PatternBody(sent)](
                                 size_t offset, size_t, httplib::DataSink& sink) {
                               if (offset < sent)
                                 return sink.write(body.data() + offset, sent - offset);
                               if (stall) server.pause(std::chrono::seconds(10));
                               return false;
                             });
  };
}

TestHttpServer::Handler Drip(TestHttpServer& server, std::string body,
                             std::chrono::milliseconds interval) {
  return [&server, body, interval](const httplib::Request&, httplib::Response& res) {
    res.set_chunked_content_provider(
        "application/json",
        [&server, body, interval, sent = std::size_t{0}](size_t, httplib::DataSink& sink) mutable {
          if (sent == body.size() || !server.pause(interval)) return false;
          return sink.write(body.data() + sent++, 1);
        });
  };
}
