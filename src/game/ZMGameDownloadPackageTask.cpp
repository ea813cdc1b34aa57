#include "game/ZMGameDownloadPackageTask.h"

#include "platform/ZMValueAccess.h"
#include "tavo/ZMOptionKeys.h"

void ZMGameDownloadPackageTask::execute(const ZMValue& options) {
  info_ = options;
  start(ZMTextOption(info_, ZM_KEY_GAME_PACKAGE_HASH),
        ZMTextOption(info_, ZM_KEY_GAME_PACKAGE_APP_ID).value_or(""));
}
