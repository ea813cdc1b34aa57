#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/ZMFormat.h"
#include "protocol/ZMURLSession.h"
#include "tavo/ZMError.h"
#include "tavo/ZMValue.h"

// ZMPluginProtocolPostForm is the wire format that both plug-in service requests share: the
// request URL, the form body, the values every request carries, and the reading of the JSON
// reply. It holds no state; its functions are safe on any thread.
//
// The body is written exactly as the service reads it: "key=value" pairs joined with "&", with
// no percent-encoding at all. A value holding "&" or "=" goes out raw and splits the field on the
// server's side; the service is built for that, so nothing here escapes anything.
class ZMPluginProtocolPostForm {
 public:
  using Pair = std::pair<std::string_view, ZMFormatArg>;

  // `host` joined with `path`, exactly one "/" between them; the "//" after the scheme stays.
  static std::string requestURL(std::string_view host, std::string_view path);

  // The engine's client identifier (its __watermark_sign); null in a process that links no
  // engine, so that the library still links and the service sees "(null)".
  static std::optional<std::string> clientId();
  // The processor the library was built for ("x86_64", "arm64", "armv7", "i386").
  static std::string cpuAbi();
  // The platform tag the service expects, whatever the machine.
  static constexpr const char* kOS = "iOS";
  static std::string osVersion();

  // The first pair written as "%@=%@", each further one appended as "&%@=%@"; a null value
  // prints as "(null)".
  static std::string body(std::initializer_list<Pair> pairs);

  // `list` (an array of objects) in the human-readable JSON layout, members whose value is null
  // left out. Fails, filling `error`, when a text is not valid UTF-8: the body is UTF-8 text.
  static std::optional<std::string> pluginListText(const ZMValue& list, ZMError* error);

  // What a service reply may cost: it must arrive whole within kReplyDeadline seconds and hold
  // at most kMaxReplyBytes after content decoding (a reply for a game with a thousand plug-ins
  // is about 200 KB). Anything past either fails the query.
  static constexpr double kReplyDeadline = 60;
  static constexpr int64_t kMaxReplyBytes = 4 << 20;

  // A POST of `body` to `url` on the shared session, started, bounded as above. The completion
  // arrives on the main queue.
  static std::shared_ptr<ZMURLSessionTask> post(const std::string& url, std::string body,
                                                ZMURLSession::DataCompletion completion);
  // Replaces kReplyDeadline for queries started afterwards; 0 restores it.
  static void setReplyDeadlineForTesting(double seconds);

  // The reply as a JSON object or array; null when there is none or it does not parse (a bare
  // number or text does not count as a reply either).
  static ZMValue parseReply(const std::optional<std::string>& data);
  // reply[key], or null when the reply is not an object or has no such member.
  static ZMValue member(const ZMValue& reply, const char* key);
  // True when `code` (a number, or a text starting with a number) has the integer value 200.
  static bool isSuccessCode(const ZMValue& code);

  // The error a completion reports when its request was cancelled after its reply had already
  // been handed over: it counts as cancelled like any other.
  static ZMError cancelledError();
};

// ZMPluginProtocolRequest is the one request a service query has in flight. send() cancels the
// request held and starts the next; cancel() ends it. A reply whose request was replaced or
// cancelled meanwhile is handed over as cancelled, even when it had already arrived, so each
// query reports at most its latest request. Safe on any thread; replies run on the main queue.
class ZMPluginProtocolRequest {
 public:
  void send(const std::string& url, std::string body, ZMURLSession::DataCompletion reply);
  void cancel();

  // The reply step of a query: hands the reply to query->_onCompleteWithData (already on the
  // main queue). It holds the query weakly, so a released query hears nothing.
  template <typename Query>
  static ZMURLSession::DataCompletion replyTo(std::weak_ptr<Query> query) {
    return [query = std::move(query)](const std::optional<std::string>& data,
                                      const std::optional<ZMHTTPURLResponse>& response,
                                      const std::optional<ZMError>& error) {
      if (auto self = query.lock()) self->_onCompleteWithData(data, response, error);
    };
  }

 private:
  std::mutex mutex_;  // task_
  std::shared_ptr<ZMURLSessionTask> task_;
  // Counts sends and cancels; shared with the replies, which may outlive this object.
  const std::shared_ptr<std::atomic<uint64_t>> serial_ = std::make_shared<std::atomic<uint64_t>>(0);
};
