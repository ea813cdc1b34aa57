#include "platform/ZMFormat.h"

#include <cctype>
#include <cstdio>

#include "platform/ZMJSON.h"
#include "tavo/ZMLog.h"

ZMFormatArg::ZMFormatArg(const ZMException& exception)
    : value_(exception.reason() ? *exception.reason() : exception.name()) {}

ZMFormatArg::ZMFormatArg(const ZMValue& value) {
  if (value.is_null()) return;
  if (value.is_string()) {
    value_ = value.get<std::string>();
  } else {
    value_ = ZMJSONLogText(value);
  }
}

std::string ZMFormatArg::description() const {
  if (std::holds_alternative<std::monostate>(value_)) return "(null)";
  if (auto* text = std::get_if<std::string>(&value_)) return *text;
  if (auto* number = std::get_if<int64_t>(&value_)) return std::to_string(*number);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%g", std::get<double>(value_));
  return buffer;
}

int64_t ZMFormatArg::integer() const {
  if (auto* number = std::get_if<int64_t>(&value_)) return *number;
  if (auto* real = std::get_if<double>(&value_)) return static_cast<int64_t>(*real);
  return 0;
}

double ZMFormatArg::real() const {
  if (auto* real = std::get_if<double>(&value_)) return *real;
  if (auto* number = std::get_if<int64_t>(&value_)) return static_cast<double>(*number);
  return 0;
}

std::string ZMFormat(std::string_view format, std::initializer_list<ZMFormatArg> args) {
  std::string out;
  out.reserve(format.size() + 32);
  auto next = args.begin();
  auto take = [&]() -> const ZMFormatArg* { return next == args.end() ? nullptr : &*next++; };
  for (std::size_t i = 0; i < format.size(); ++i) {
    const char c = format[i];
    if (c != '%' || i + 1 == format.size()) {
      out += c;
      continue;
    }
    std::size_t j = i + 1;
    if (format[j] == '%') {
      out += '%';
      i = j;
      continue;
    }
    // Optional precision (".3") then length modifiers, then the conversion.
    std::string precision;
    if (format[j] == '.') {
      std::size_t k = j + 1;
      while (k < format.size() && std::isdigit(static_cast<unsigned char>(format[k]))) ++k;
      precision = std::string(format.substr(j, k - j));
      j = k;
    }
    while (j < format.size() && (format[j] == 'l' || format[j] == 'z' || format[j] == 'q')) ++j;
    if (j >= format.size()) {
      out += format.substr(i);
      break;
    }
    const ZMFormatArg* arg = nullptr;
    switch (format[j]) {
      case '@':
      case 's':
        arg = take();
        out += arg ? arg->description() : "(null)";
        break;
      case 'd':
      case 'i':
      case 'u':
        arg = take();
        out += std::to_string(arg ? arg->integer() : 0);
        break;
      case 'f': {
        arg = take();
        const std::string conversion = "%" + precision + "f";
        const double value = arg ? arg->real() : 0.0;
        // %f of a large value runs to hundreds of digits; size the text instead of cutting it.
        const int length = std::snprintf(nullptr, 0, conversion.c_str(), value);
        if (length > 0) {
          std::string text(static_cast<std::size_t>(length), '\0');
          std::snprintf(text.data(), text.size() + 1, conversion.c_str(), value);
          out += text;
        }
        break;
      }
      default:
        out += format.substr(i, j - i + 1);
        break;
    }
    i = j;
  }
  return out;
}

void ZMLogFormat(std::string_view format, std::initializer_list<ZMFormatArg> args) {
  ZMLog::write(ZMFormat(format, args));
}
