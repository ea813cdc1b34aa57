#include "plugin/ZMPluginRemoveListTask.h"

#include "platform/ZMFormat.h"
#include "platform/ZMPath.h"
#include "platform/ZMValueAccess.h"
#include "plugin/ZMPluginManager.h"
#include "tavo/ZMFileUtils.h"

ZMPluginRemoveListTask::ZMPluginRemoveListTask(std::string pluginRootDir,
                                               std::weak_ptr<ZMPluginRemoveListener> listener)
    : ZMTask(std::move(listener)), pluginRootDir_(std::move(pluginRootDir)) {}

void ZMPluginRemoveListTask::execute(const ZMValue& list) {
  postWork([self = shared_from_this(), list] { self->_removeList(list); });
}

void ZMPluginRemoveListTask::_removeList(const ZMValue& list) {
  if (!list.is_array()) {
    _complete(ZMError("list is null", 0), ZMValue::array());
    return;
  }
  ZMValue removedList = ZMValue::array();
  for (const ZMValue& info : list) {
    if (isCancel()) return;  // the cancel ended the run
    _onProgressUpdate(info, true);
    const auto provider = ZMTextOption(info, "provider");
    const auto version = ZMTextOption(info, "version");
    if (!provider || provider->empty() || !version || version->empty()) {
      _complete(ZMError("plugin provider or version is empty", 0), ZMValue::array());
      return;
    }
    // A name that could reach another directory deletes nothing and ends the run.
    const std::string dir = ZMPluginManager::getPluginDirFile(pluginRootDir_, *provider, *version);
    if (dir.empty()) {
      _complete(ZMError("plugin provider or version is invalid", 0), ZMValue::array());
      return;
    }
    // Both failures name the directory: it is how the host knows the plug-in.
    if (!ZMFileUtils::deleteFile(dir) ||
        !ZMFileUtils::deleteFile(ZMPluginManager::getPluginConfigFile(dir))) {
      _complete(ZMError(ZMFormat("%@ delete failure", {dir}), 0), ZMValue::array());
      return;
    }
    removedList.push_back(info);
    _onProgressUpdate(info, false);
  }
  _complete(std::nullopt, std::move(removedList));
}

void ZMPluginRemoveListTask::_complete(const std::optional<ZMError>& error, ZMValue removedList) {
  postFinalReply([error, removedList = std::move(removedList)](ZMPluginRemoveListener& listener) {
    if (error) {
      listener.onPluginRemoveFailure(*error);
    } else {
      listener.onPluginRemoveSuccess(removedList);
    }
  });
}

void ZMPluginRemoveListTask::_onProgressUpdate(const ZMValue& info, bool isStart) {
  postReply([info, isStart](ZMPluginRemoveListener& listener) {
    if (isStart) {
      listener.onPluginRemoveStart(info);
    } else {
      listener.onPluginRemoveFinish(info);
    }
  });
}
