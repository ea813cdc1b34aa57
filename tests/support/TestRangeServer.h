#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A package server on 127.0.0.1 written on plain sockets, so that the bytes on the wire are
// exactly what a test says: it serves one file (`body`, or the file at `bodyPath`) at any path,
// one request per connection, honours "Range: bytes=N-" when "If-Range" names its ETag (or when
// there is no If-Range), and cuts a response short where the test says. It counts the body
// bytes it sent and keeps each request's "Range|If-Range".
class TestRangeServer {
 public:
  struct Reply {
    int64_t cutAt = -1;       // the connection breaks before this byte of the file; -1: never
    std::string etag = "v1";  // sent quoted; empty: no validator at all
    bool ranges = true;       // false: Range is ignored (the whole file, 200)
    std::string status = "";  // the status line's code and text instead of 200 or 206
    std::string length = "";  // the Content-Length declared instead of the true one
    bool reset = false;       // the cut resets the connection (RST) instead of closing it
  };

  // `reply(i)` says how to answer the i-th request (from 0).
  explicit TestRangeServer(std::string body, std::function<Reply(int)> reply = nullptr);
  ~TestRangeServer();
  TestRangeServer(const TestRangeServer&) = delete;
  TestRangeServer& operator=(const TestRangeServer&) = delete;

  // Serves the file at `path` instead, `chunkDelay` between chunks of 1 MiB.
  void serveFile(std::string path, std::chrono::milliseconds chunkDelay);
  void setBody(std::string body);

  std::string url() const { return url_; }
  int64_t sent() const { return sent_.load(); }
  // Requests answered to the end (their connection closed).
  int finished() const { return finished_.load(); }
  std::vector<std::string> requests() const;

 private:
  void serve(int connection);

  mutable std::mutex mutex_;
  std::string body_, bodyPath_;
  std::chrono::milliseconds chunkDelay_{0};
  std::function<Reply(int)> reply_;
  std::vector<std::string> requests_;
  std::atomic<int64_t> sent_{0};
  std::atomic<int> finished_{0};
  std::atomic<bool> stopping_{false};
  int listener_ = -1;
  std::string url_;
  std::thread thread_;
};
