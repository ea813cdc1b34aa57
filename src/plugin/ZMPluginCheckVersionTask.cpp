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
  if (isCancel()) {
    finished();  // no reply will run, so the owner's group need not keep the task
    return;
  }
  const std::string config = ZMPluginManager::getPluginConfigFile(pluginDir);
  if (!ZMFileUtils::isExist(config)) {
    // Without its config the directory is an unfinished unpack: nothing to keep.
    ZMFileUtils::deleteFile(pluginDir);
    _complete(ZMError("Error:plugin config no exist.", 0));
    return;
  }
  if (!ZMFileUtils::isExist(pluginDir)) {
    // A config alone marks nothing installed; dropping it makes the next check fail plainly.
    ZMFileUtils::deleteFile(config);
    _complete(ZMError("Error:plugin package no exist.", 0), false);
  }
  _complete(std::nullopt);
}

void ZMPluginCheckVersionTask::_complete(const std::optional<ZMError>& error, bool last) {
  postStep([error, last](ZMPluginCheckVersionTask& self) {
    if (last) self.finished();
    auto listener = self.listener_.lock();
    if (!listener) return;
    if (error) {
      listener->onCheckPluginFailure(self.pluginInfo_, *error);
    } else {
      listener->onCheckPluginSuccess(self.pluginInfo_);
    }
  });
}
