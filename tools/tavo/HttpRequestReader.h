#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "HttpMessage.h"

// HttpRequestReader reads HTTP/1.1 requests, one at a time, from the bytes a connection
// receives. It holds at most one request head and a body within the limits: a body declared
// larger is refused from the head alone, and a chunked one as soon as it grows past the limit,
// so a client cannot make the server hold what it will not answer. One per connection; not
// thread-safe.
class HttpRequestReader {
 public:
  enum class Step {
    More,      // the request is not complete yet
    HeadRead,  // the head is read and a body follows (time to answer "100 Continue")
    Done,      // request() is complete
    Failed,    // the request cannot be read: answer failure() and end the connection
  };

  HttpRequestReader(std::size_t maxHeadBytes, std::size_t maxBodyBytes)
      : maxHead_(maxHeadBytes), maxBody_(maxBodyBytes) {}

  // Takes what it can use from the front of `input`.
  Step read(std::string& input);
  // Read so far: the method and target are there as soon as the request line is.
  HttpRequest& request() { return request_; }
  HttpResponse failure() const;
  bool expectsContinue() const { return expectsContinue_; }
  // Whether the connection may carry another request after this one.
  bool keepAlive() const;
  // Ready for the connection's next request.
  void reset();

 private:
  enum class State { Head, Body, ChunkSize, ChunkData, ChunkEnd, Trailers, Done, Failed };

  Step readHead(std::string& input);
  Step parseHead(std::string_view head);
  Step readChunks(std::string& input);
  // Moves up to bodyLeft_ bytes of `input` into the body; true when none are left to read.
  bool takeBody(std::string& input);
  Step fail(int status, std::string message);

  const std::size_t maxHead_;
  const std::size_t maxBody_;
  State state_ = State::Head;
  HttpRequest request_;
  std::size_t scanned_ = 0;  // input already searched for the end of the head
  uint64_t bodyLeft_ = 0;    // of the body, or of the current chunk
  std::size_t trailerBytes_ = 0;
  bool expectsContinue_ = false;
  int failureStatus_ = 0;
  std::string failureMessage_;
};
