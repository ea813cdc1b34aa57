#include "Reporter.h"

#include <cstdio>
#include <iostream>

std::string ToJSON(const ZMValue& value, int indent) {
  return value.dump(indent, ' ', false, ZMValue::error_handler_t::replace);
}

namespace {

std::string Amount(int64_t value, std::string_view unit) {
  char text[64];
  if (unit == "bytes") {
    if (value >= (1 << 20)) {
      std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(value) / (1 << 20));
    } else {
      std::snprintf(text, sizeof text, "%.1f KiB", static_cast<double>(value) / 1024);
    }
  } else {
    std::snprintf(text, sizeof text, "%lld%%", static_cast<long long>(value));
  }
  return text;
}

}  // namespace

void Reporter::event(std::string_view name, const ZMValue& args) {
  if (!trace_) return;
  ZMValue line = ZMValue::object();
  line["event"] = std::string(name);
  line["args"] = args;
  std::lock_guard lock(mutex_);
  std::cout << ToJSON(line) << std::endl;
}

void Reporter::say(std::string_view line) {
  if (trace_) return;
  std::lock_guard lock(mutex_);
  endBarLocked();
  std::cout << line << std::endl;
}

void Reporter::result(const ZMValue& value) {
  std::lock_guard lock(mutex_);
  endBarLocked();
  if (trace_) {
    std::cout << ToJSON(ZMValue{{"result", value}}) << std::endl;
  } else {
    std::cout << ToJSON(value, 2) << std::endl;
  }
}

void Reporter::progress(std::string_view label, int64_t done, int64_t total,
                        std::string_view unit) {
  if (trace_) return;
  std::lock_guard lock(mutex_);
  if (label != lastLabel_) {
    endBarLocked();
    lastLabel_ = std::string(label);
    lastTenth_ = -1;
  }
  const bool known = total > 0;
  const double fraction = known ? std::min(1.0, static_cast<double>(done) / total) : 0.0;
  if (terminal_) {
    constexpr int kWidth = 30;
    std::string bar;
    if (known) {
      const int filled = static_cast<int>(fraction * kWidth);
      bar = "[" + std::string(filled, '#') + std::string(kWidth - filled, '.') + "]";
    }
    std::string amount = Amount(done, unit);
    if (known && unit == "bytes") amount += " of " + Amount(total, unit);
    std::cout << "\r  " << label << " " << bar << " " << amount << "\x1b[K" << std::flush;
    barShown_ = true;
    return;
  }
  // Plain lines: one per tenth reached; without a total there is no tenth to report.
  if (!known) return;
  const int tenth = static_cast<int>(fraction * 10);
  if (tenth == lastTenth_) return;
  lastTenth_ = tenth;
  std::cout << "  " << label << " " << tenth * 10 << "%";
  if (unit == "bytes")
    std::cout << " (" << Amount(done, unit) << " of " << Amount(total, unit) << ")";
  std::cout << std::endl;
}

void Reporter::failure(std::string_view what, const ZMError& error) {
  std::lock_guard lock(mutex_);
  endBarLocked();
  std::cout.flush();  // keeps the order of the two streams on one terminal
  std::cerr << "tavo: " << what << ": " << error.localizedDescription() << " (domain "
            << error.domain << ", code " << error.code << ")" << std::endl;
}

void Reporter::failure(std::string_view what, std::string_view reason) {
  std::lock_guard lock(mutex_);
  endBarLocked();
  std::cout.flush();
  std::cerr << "tavo: " << what << ": " << reason << std::endl;
}

ZMValue Reporter::errorValue(const ZMError& error) {
  return {{"domain", error.domain},
          {"code", error.code},
          {"userInfo", error.userInfo ? *error.userInfo : ZMValue()}};
}

void Reporter::endBarLocked() {
  if (!barShown_) return;
  std::cout << std::endl;
  barShown_ = false;
}
