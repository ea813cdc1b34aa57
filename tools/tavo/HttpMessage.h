#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The request and response types of `tavo serve`'s HTTP server (HttpServer).

struct HttpHeader {
  std::string name;  // lower case in a request; written as given in a response
  std::string value;
};

// One request as the server read it.
struct HttpRequest {
  std::string method;
  std::string target;    // as received
  std::string path;      // the target's path, percent-decoded; empty when it does not decode
  int minorVersion = 1;  // HTTP/1.x
  std::vector<HttpHeader> headers;
  std::string body;

  // The first header named `name` (lower case), or null.
  const std::string* header(std::string_view name) const;
};

// A file descriptor, closed with its owner.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd = -1) : fd_(fd) {}
  ~FileDescriptor();
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  int get() const { return fd_; }
  int release();

 private:
  int fd_;
};

// What a handler answers. The server adds Content-Length and, where needed, Connection.
struct HttpResponse {
  int status = 200;
  std::vector<HttpHeader> headers;
  std::string body;
  // A body read from a file instead: `length` bytes from `offset`.
  struct FileBody {
    FileDescriptor file;
    int64_t offset = 0;
    int64_t length = 0;
  };
  std::optional<FileBody> file;
  std::string note;    // the log line's words after the status
  bool close = false;  // end the connection after this response

  // {"code":<status>,"message":<message>}: the shape of every error reply, which the runtime
  // reads the code of (it never looks at the status line).
  static HttpResponse error(int status, const std::string& message);
  static HttpResponse json(int status, std::string body, std::string note);
};

// "OK", "Not Found"...
std::string_view ReasonPhrase(int status);
