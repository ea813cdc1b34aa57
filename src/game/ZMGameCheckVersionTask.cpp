#include "game/ZMGameCheckVersionTask.h"

#include "tavo/ZMFileUtils.h"
#include "tavo/ZMOptionKeys.h"

namespace {
// A missing or non-text value never equals anything.
bool sameText(const ZMValue& a, const ZMValue& b, const char* key) {
  if (!a.is_object() || !b.is_object()) return false;
  auto left = a.find(key);
  auto right = b.find(key);
  return left != a.end() && right != b.end() && left->is_string() && right->is_string() &&
         left->get_ref<const std::string&>() == right->get_ref<const std::string&>();
}
}  // namespace

ZMGameCheckVersionTask::ZMGameCheckVersionTask(
    std::weak_ptr<ZMPackageCheckVersionListener> listener, std::string detailFilePath)
    : ZMTask(std::move(listener)), detailFilePath_(std::move(detailFilePath)) {}

void ZMGameCheckVersionTask::execute(const ZMValue& options) {
  postWork([weak = weak_from_this(), options] {
    if (auto self = weak.lock(); self && !self->isCancel())
      self->_complte(self->_checkVersion(options));
  });
}

bool ZMGameCheckVersionTask::_checkVersion(const ZMValue& options) const {
  if (!ZMFileUtils::isExist(detailFilePath_)) return false;
  auto detail = ZMFileUtils::readJSONObjectFromFile(detailFilePath_);
  if (!detail) return false;
  // Exact text comparison, the version first: "1.0" and "1.0.0" are different versions.
  return sameText(*detail, options, ZM_KEY_GAME_PACKAGE_VERSION) &&
         sameText(*detail, options, ZM_KEY_GAME_PACKAGE_APP_ID);
}

void ZMGameCheckVersionTask::_complte(bool matched) {
  postFinalReply([matched](ZMPackageCheckVersionListener& listener) {
    if (matched) {
      listener.onCheckVersionSuccess();
    } else {
      // One error for every kind of mismatch: the host cannot tell them apart.
      listener.onCheckVersionFailure(
          ZMError("Error: version is not the same as local version", -1, ZMValue::object()));
    }
  });
}
