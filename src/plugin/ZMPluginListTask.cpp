#include "plugin/ZMPluginListTask.h"

#include "platform/ZMFileManager.h"
#include "platform/ZMFormat.h"
#include "platform/ZMPath.h"
#include "plugin/ZMPluginManager.h"
#include "tavo/ZMFileUtils.h"

ZMPluginListTask::ZMPluginListTask(std::weak_ptr<ZMGameListListener> listener)
    : ZMTask(std::move(listener)) {}

void ZMPluginListTask::execute(const std::string& pluginRootPath) {
  postWork([self = shared_from_this(), pluginRootPath] { self->_listPlugin(pluginRootPath); });
}

void ZMPluginListTask::_listPlugin(const std::string& root) {
  if (!ZMFileUtils::isExist(root)) {
    _complete(ZMError("plugin root dir is not exist", 0), ZMValue::array());
    return;
  }
  ZMValue resultList = ZMValue::array();
  // A root that cannot be listed (a file, no permission) simply holds no plug-ins.
  const auto names = ZMFileManager::contentsOfDirectory(root, nullptr);
  for (const auto& name : names.value_or(std::vector<std::string>())) {
    if (isCancel()) return;  // the cancel ended the run
    const std::string path = ZMPathJoin(root, name);
    // Config files are plain files beside the directories; only directories are plug-ins.
    if (!ZMFileManager::kindOfItem(path).isDirectory) continue;
    // The config is written once a package is unpacked, so a directory without one is a
    // half-done install. (A config without its directory, which an update's prefetch leaves,
    // is never looked at: only directories are walked.)
    if (!ZMFileUtils::isExist(ZMPluginManager::getPluginConfigFile(path))) continue;
    // Split at the first "_": a version may hold more of them, a provider is taken not to.
    const auto split = name.find('_');
    if (split == std::string::npos) {
      ZMLogFormat("%@ plugin dir name error", {name});
      continue;
    }
    resultList.push_back(
        {{"provider", name.substr(0, split)}, {"version", name.substr(split + 1)}, {"path", path}});
  }
  _complete(std::nullopt, std::move(resultList));
}

void ZMPluginListTask::_complete(const std::optional<ZMError>& error, ZMValue resultList) {
  postFinalReply([error, resultList = std::move(resultList)](ZMGameListListener& listener) {
    if (error) {
      listener.onListGameFailure(*error);
    } else {
      listener.onListGameSuccess(resultList);
    }
  });
}
