#include "protocol/ZMPluginProtocolPostForm.h"

#include <atomic>
#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>

#include "platform/ZMJSON.h"
#include "platform/ZMPath.h"
#include "tavo/ZMGameHandle.h"
#include "tavo/ZMSystemDirectories.h"

// The engine defines the client identifier; a weak reference lets programs that link the library
// without an engine (benchmarks, tools that never talk to the service) still link.
#pragma weak __watermark_sign

namespace {

// Drops null members of every object, at any depth: the service never sees a "key" : null.
ZMValue withoutNulls(const ZMValue& value) {
  if (value.is_object()) {
    ZMValue out = ZMValue::object();
    for (auto it = value.begin(); it != value.end(); ++it) {
      if (!it.value().is_null()) out[it.key()] = withoutNulls(it.value());
    }
    return out;
  }
  if (value.is_array()) {
    ZMValue out = ZMValue::array();
    for (const auto& element : value) out.push_back(withoutNulls(element));
    return out;
  }
  return value;
}

// Foundation's integerValue of a text: leading blanks, an optional sign, digits; anything after
// them is ignored. Null when no digits come first or the number does not fit.
std::optional<int64_t> integerOfText(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) {
    text.remove_prefix(1);
  }
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  int64_t value = 0;
  const auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (status != std::errc() || end == text.data()) return std::nullopt;
  return value;
}

std::atomic<double> replyDeadlineForTesting{0};

}  // namespace

void ZMPluginProtocolPostForm::setReplyDeadlineForTesting(double seconds) {
  replyDeadlineForTesting.store(seconds);
}

std::string ZMPluginProtocolPostForm::requestURL(std::string_view host, std::string_view path) {
  return ZMPathJoin(host, path);
}

std::optional<std::string> ZMPluginProtocolPostForm::clientId() {
  if (__watermark_sign == nullptr) return std::nullopt;
  return std::string(__watermark_sign);
}

std::string ZMPluginProtocolPostForm::cpuAbi() { return ZMDevice::processorName(); }

std::string ZMPluginProtocolPostForm::osVersion() { return ZMDevice::systemVersion(); }

std::string ZMPluginProtocolPostForm::body(std::initializer_list<Pair> pairs) {
  std::string out;
  bool first = true;
  for (const auto& [key, value] : pairs) {
    out += ZMFormat(first ? "%@=%@" : "&%@=%@", {key, value});
    first = false;
  }
  return out;
}

std::optional<std::string> ZMPluginProtocolPostForm::pluginListText(const ZMValue& list,
                                                                    ZMError* error) {
  const ZMValue written = withoutNulls(list);
  try {
    (void)written.dump();  // only to check that every text is UTF-8
  } catch (const nlohmann::json::exception& e) {
    if (error) {
      *error =
          ZMError(kZMCocoaErrorDomain, 3851,
                  ZMValue{{kZMLocalizedDescriptionKey,
                           std::string("The data couldn\u2019t be written because it isn\u2019t "
                                       "in the correct format. (") +
                               e.what() + ")"}});
    }
    return std::nullopt;
  }
  return ZMJSONPrettyString(written);
}

std::shared_ptr<ZMURLSessionTask> ZMPluginProtocolPostForm::post(
    const std::string& url, std::string body, ZMURLSession::DataCompletion completion) {
  // No header of our own: the client's form content type is what the service expects.
  ZMURLRequest request(url);
  request.httpMethod = "POST";
  request.httpBody = std::move(body);
  const double deadline = replyDeadlineForTesting.load();
  request.timeoutIntervalForResource = deadline > 0 ? deadline : kReplyDeadline;
  request.maximumResponseSize = kMaxReplyBytes;
  auto task = ZMURLSession::sharedSession()->dataTask(std::move(request), std::move(completion));
  task->resume();
  return task;
}

ZMValue ZMPluginProtocolPostForm::parseReply(const std::optional<std::string>& data) {
  if (!data) return nullptr;
  auto parsed = ZMJSONParse(*data);
  if (!parsed || !(parsed->is_object() || parsed->is_array())) return nullptr;
  return std::move(*parsed);
}

ZMValue ZMPluginProtocolPostForm::member(const ZMValue& reply, const char* key) {
  if (!reply.is_object()) return nullptr;
  const auto it = reply.find(key);
  return it == reply.end() ? ZMValue() : *it;
}

bool ZMPluginProtocolPostForm::isSuccessCode(const ZMValue& code) {
  std::optional<int64_t> value;
  if (code.is_number_integer()) {
    value = code.get<int64_t>();
  } else if (code.is_number_unsigned()) {
    const auto number = code.get<uint64_t>();
    if (number <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      value = static_cast<int64_t>(number);
    }
  } else if (code.is_number_float()) {
    const double number = std::trunc(code.get<double>());  // 200.0 is 200, as integerValue has it
    if (std::abs(number) < 9.2e18) value = static_cast<int64_t>(number);
  } else if (code.is_string()) {
    value = integerOfText(code.get_ref<const std::string&>());
  }
  return value == 200;
}

ZMError ZMPluginProtocolPostForm::cancelledError() {
  return ZMError(kZMURLErrorDomain, kZMURLErrorCancelled,
                 ZMValue{{kZMLocalizedDescriptionKey, "cancelled"}});
}

void ZMPluginProtocolRequest::send(const std::string& url, std::string body,
                                   ZMURLSession::DataCompletion reply) {
  std::lock_guard lock(mutex_);
  // The previous request's reply then comes as cancelled.
  if (task_) task_->cancel();
  const uint64_t serial = ++*serial_;
  task_ = ZMPluginProtocolPostForm::post(
      url, std::move(body),
      [serials = serial_, serial, reply = std::move(reply)](
          const std::optional<std::string>& data, const std::optional<ZMHTTPURLResponse>& response,
          const std::optional<ZMError>& error) {
        const bool current = serials->load() == serial;
        reply(data, response, current ? error : ZMPluginProtocolPostForm::cancelledError());
      });
}

void ZMPluginProtocolRequest::cancel() {
  std::lock_guard lock(mutex_);
  if (!task_) return;
  ++*serial_;
  task_->cancel();
  task_.reset();
}
