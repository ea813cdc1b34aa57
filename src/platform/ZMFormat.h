#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "tavo/ZMError.h"
#include "tavo/ZMException.h"
#include "tavo/ZMValue.h"

// ZMFormatArg is one argument of ZMFormat: any object printed by %@ (null prints "(null)"),
// or a number for %d/%ld/%lld/%f.
class ZMFormatArg {
 public:
  ZMFormatArg(std::nullptr_t) {}
  ZMFormatArg(const char* text) {
    if (text) value_ = std::string(text);
  }
  ZMFormatArg(std::string_view text) : value_(std::string(text)) {}
  ZMFormatArg(const std::string& text) : value_(text) {}
  ZMFormatArg(const std::optional<std::string>& text) {
    if (text) value_ = *text;
  }
  ZMFormatArg(int value) : value_(static_cast<int64_t>(value)) {}
  ZMFormatArg(long value) : value_(static_cast<int64_t>(value)) {}
  ZMFormatArg(long long value) : value_(static_cast<int64_t>(value)) {}
  ZMFormatArg(unsigned value) : value_(static_cast<int64_t>(value)) {}
  ZMFormatArg(double value) : value_(value) {}
  ZMFormatArg(const ZMError& error) : value_(error.description()) {}
  ZMFormatArg(const ZMException& exception);
  ZMFormatArg(const ZMValue& value);

  // The text that %@ prints.
  std::string description() const;
  int64_t integer() const;
  double real() const;

 private:
  std::variant<std::monostate, std::string, int64_t, double> value_;
};

// printf-style formatting with Foundation's %@: "%@ is a file" with a path. Supports %@, %d,
// %ld, %lld, %u, %lu, %f (with an optional precision), %s and %%.
std::string ZMFormat(std::string_view format, std::initializer_list<ZMFormatArg> args = {});

// Formats one line and writes it to the log.
void ZMLogFormat(std::string_view format, std::initializer_list<ZMFormatArg> args = {});
