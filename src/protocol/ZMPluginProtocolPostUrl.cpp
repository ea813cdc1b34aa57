#include "protocol/ZMPluginProtocolPostUrl.h"

#include <utility>

#include "platform/ZMFormat.h"
#include "protocol/ZMPluginProtocolPostForm.h"

using Form = ZMPluginProtocolPostForm;

ZMPluginProtocolPostUrl::ZMPluginProtocolPostUrl(
    const std::string& host, std::optional<std::string> deviceId, std::string bundleId,
    std::string runtimeVersion, std::weak_ptr<ZMPluginProtocolPostUrlListener> listener)
    : listener_(std::move(listener)),
      url_(Form::requestURL(host, kPath)),
      deviceId_(std::move(deviceId)),
      bundleId_(std::move(bundleId)),
      runtimeVersion_(std::move(runtimeVersion)) {}

void ZMPluginProtocolPostUrl::execute(const std::string& pluginId, const std::string& version) {
  ZMError error;
  const auto pluginList = Form::pluginListText(
      ZMValue::array({ZMValue{{"plugin_id", pluginId}, {"version", version}}}), &error);
  if (!pluginList) {
    _notifyFail(error);
    return;
  }
  std::string body = Form::body({{"client_id", Form::clientId()},
                                 {"device_id", deviceId_},
                                 {"app_bundle_id", bundleId_},
                                 {"client_version", runtimeVersion_},
                                 {"cpu_abi", Form::cpuAbi()},
                                 {"os", Form::kOS},
                                 {"os_version", Form::osVersion()},
                                 {"plugin_list", *pluginList}});

  {
    std::lock_guard lock(mutex_);
    pluginId_ = pluginId;
    version_ = version;
  }
  // The previous request's completion then logs the cancellation and reports nothing.
  request_.send(url_, std::move(body), ZMPluginProtocolRequest::replyTo(weak_from_this()));
}

void ZMPluginProtocolPostUrl::cancel() { request_.cancel(); }

void ZMPluginProtocolPostUrl::_onCompleteWithData(const std::optional<std::string>& data,
                                                  const std::optional<ZMHTTPURLResponse>&,
                                                  const std::optional<ZMError>& error) {
  if (error) {
    if (error->code == kZMURLErrorCancelled) {
      ZMLogFormat("post url request has been canceled");
      return;
    }
    ZMLogFormat("post url request error: %@", {*error});
    _notifyFail(*error);
    return;
  }

  // Every reply that arrives is logged, also the ones that then count as failures.
  const ZMValue reply = Form::parseReply(data);
  ZMLogFormat("post url request success: %@", {reply});
  const ZMValue code = Form::member(reply, "code");
  if (!Form::isSuccessCode(code)) {
    _notifyFail(ZMError(ZMFormat("get plugin url error %@", {code}), 0));
    return;
  }
  const ZMValue results = Form::member(reply, "plugin_results");
  if (!results.is_array() || results.empty()) {
    _notifyFail(ZMError("get plugin url error: empty plugin list", 0));
    return;
  }

  std::string pluginId, version;
  {
    std::lock_guard lock(mutex_);
    pluginId = pluginId_;
    version = version_;
  }
  auto text = [](const ZMValue& entry, const char* key) -> std::optional<std::string> {
    const ZMValue value = Form::member(entry, key);
    if (!value.is_string()) return std::nullopt;
    return value.get<std::string>();
  };
  // No matching entry still succeeds, with a null hash and URL: the install flow copes.
  std::optional<std::string> hash, url;
  for (const auto& entry : results) {
    if (text(entry, "plugin_id") == pluginId && text(entry, "version") == version) {
      hash = text(entry, "hash");
      url = text(entry, "url");
      break;
    }
  }
  _notifySuccess(pluginId, version, hash, url);
}

void ZMPluginProtocolPostUrl::_notifySuccess(const std::string& pluginId,
                                             const std::string& version,
                                             const std::optional<std::string>& hash,
                                             const std::optional<std::string>& url) {
  if (auto listener = listener_.lock()) listener->onPostUrlSuccess(pluginId, version, hash, url);
}

void ZMPluginProtocolPostUrl::_notifyFail(const ZMError& error) {
  if (auto listener = listener_.lock()) listener->onPostUrlFail(error);
}
