#include "protocol/ZMPluginProtocolPostHash.h"

#include <string_view>
#include <utility>

#include "platform/ZMFormat.h"
#include "platform/ZMValueAccess.h"
#include "protocol/ZMPluginProtocolPostForm.h"
#include "tavo/ZMFileUtils.h"

using Form = ZMPluginProtocolPostForm;

ZMPluginProtocolPostHash::ZMPluginProtocolPostHash(
    std::string pluginRootPath, const std::string& host, std::optional<std::string> deviceId,
    std::string gameId, std::string appBundleId, std::string runtimeVersion,
    std::weak_ptr<ZMPluginProtocolPostHashListener> listener, InstalledHash installedHash)
    : listener_(std::move(listener)),
      pluginRootPath_(std::move(pluginRootPath)),
      url_(Form::requestURL(host, kPath)),
      deviceId_(std::move(deviceId)),
      gameId_(std::move(gameId)),
      appBundleId_(std::move(appBundleId)),
      runtimeVersion_(std::move(runtimeVersion)),
      installedHash_(std::move(installedHash)) {}

bool ZMPluginProtocolPostHash::execute(const ZMZimoGameConfig& config) {
  ZMValue list = ZMValue::array();
  const ZMValue plugins = config.plugins();
  if (plugins.is_array()) {
    for (const auto& declaration : plugins) {
      const auto provider = ZMTextOption(declaration, "provider");
      const auto version = ZMTextOption(declaration, "version");
      if (!provider || !version) continue;
      // Only plug-ins installed with a known hash are worth asking about. A declaration that
      // names no plug-in safely has no config and so no hash.
      const auto hash = installedHash_(pluginRootPath_, *provider, *version);
      if (!hash || hash->empty()) continue;
      list.push_back({{"plugin_id", *provider}, {"version", *version}, {"hash", *hash}});
    }
  }
  // Nothing to ask, or nothing the body could carry: no request and, deliberately, no callback.
  if (list.empty()) return false;
  const auto pluginList = Form::pluginListText(list, nullptr);
  if (!pluginList) return false;

  std::string body = Form::body({{"client_id", Form::clientId()},
                                 {"device_id", deviceId_},
                                 {"game_id", gameId_},
                                 {"app_bundle_id", appBundleId_},
                                 {"client_version", runtimeVersion_},
                                 {"cpu_abi", Form::cpuAbi()},
                                 {"os", Form::kOS},
                                 {"os_version", Form::osVersion()},
                                 {"plugin_list", *pluginList}});

  request_.send(url_, std::move(body), ZMPluginProtocolRequest::replyTo(weak_from_this()));
  return true;
}

void ZMPluginProtocolPostHash::cancel() { request_.cancel(); }

void ZMPluginProtocolPostHash::_onCompleteWithData(const std::optional<std::string>& data,
                                                   const std::optional<ZMHTTPURLResponse>&,
                                                   const std::optional<ZMError>& error) {
  if (error) {
    if (error->code == kZMURLErrorCancelled) {
      ZMLogFormat("post hash request has been canceled");
      return;
    }
    ZMLogFormat("post hash request error: %@", {*error});
    _notifyFailure(*error);
    return;
  }
  const ZMValue reply = Form::parseReply(data);
  ZMLogFormat("post hash request success: %@", {reply});
  const ZMValue code = Form::member(reply, "code");
  if (!Form::isSuccessCode(code)) {
    _notifyFailure(ZMError(ZMFormat("get plugin hash error %@", {code}), 0));
    return;
  }
  // Passed on as received: an absent list is not a failure here, the update flow reads it.
  _notifyList(Form::member(reply, "plugin_results"));
}

void ZMPluginProtocolPostHash::_notifyList(const ZMValue& pluginResults) {
  if (auto listener = listener_.lock()) listener->onGetUpdatePluginList(pluginResults);
}

void ZMPluginProtocolPostHash::_notifyFailure(const ZMError& error) {
  if (auto listener = listener_.lock()) listener->onPostHashFailure(error);
}
