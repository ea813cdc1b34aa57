#include "plugin/ZMPluginCheckVersionTask.h"

#include <utility>

#include "plugin/ZMPluginManager.h"
#include "tavo/ZMFileUtils.h"

ZMPluginCheckVersionTask::ZMPluginCheckVersionTask(
    ZMValue pluginInfo, std::weak_ptr<ZMPluginCheckVersionListener> listener)
    : ZMTask(std::move(listener)), pluginInfo_(std::move(pluginInfo)) {}

void ZMPluginCheckVersionTask::execute(const std::string& pluginDir) {
  postWork([weak = weak_from_this(), pluginDir] {
    if (auto self = weak.lock()) self->_checkVersion(pluginDir);
  });
}

void ZMPluginCheckVersionTask::_checkVersion(const std::string& pluginDir) {
  if (isCancel()) return;  // the cancel ended the run
  const std::string config = ZMPluginManager::getPluginConfigFile(pluginDir);
  if (!ZMFileUtils::isExist(config)) {
    // Without its config the directory is an unfinished unpack: nothing to keep.
    ZMFileUtils::deleteFile(pluginDir);
    _complete({ZMError("Error:plugin config no exist.", 0)});
    return;
  }
  if (!ZMFileUtils::isExist(pluginDir)) {
    // A config alone marks nothing installed; dropping it makes the next check fail plainly.
    // Reported as a failure and then, all the same, as a success.
    ZMFileUtils::deleteFile(config);
    _complete({ZMError("Error:plugin package no exist.", 0), std::nullopt});
    return;
  }
  _complete({std::nullopt});
}

void ZMPluginCheckVersionTask::_complete(std::vector<std::optional<ZMError>> outcomes) {
  postFinalOutcomes(
      std::move(outcomes),
      [info = pluginInfo_](auto& listener, const ZMError& e) {
        listener.onCheckPluginFailure(info, e);
      },
      [info = pluginInfo_](auto& listener) { listener.onCheckPluginSuccess(info); });
}
