#include "HttpMessage.h"

#include <unistd.h>

#include "Reporter.h"

const std::string* HttpRequest::header(std::string_view name) const {
  for (const auto& header : headers) {
    if (header.name == name) return &header.value;
  }
  return nullptr;
}

FileDescriptor::~FileDescriptor() {
  if (fd_ >= 0) ::close(fd_);
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = other.release();
  }
  return *this;
}

int FileDescriptor::release() {
  const int fd = fd_;
  fd_ = -1;
  return fd;
}

HttpResponse HttpResponse::error(int status, const std::string& message) {
  return json(status, ToJSON({{"code", status}, {"message", message}}), message);
}

HttpResponse HttpResponse::json(int status, std::string body, std::string note) {
  HttpResponse response;
  response.status = status;
  response.headers.push_back({"Content-Type", "application/json"});
  response.body = std::move(body);
  response.note = std::move(note);
  return response;
}

std::string_view ReasonPhrase(int status) {
  switch (status) {
    case 100:
      return "Continue";
    case 200:
      return "OK";
    case 206:
      return "Partial Content";
    case 400:
      return "Bad Request";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 413:
      return "Content Too Large";
    case 416:
      return "Range Not Satisfiable";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return "Unknown";
  }
}
