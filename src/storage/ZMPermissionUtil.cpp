#include "storage/ZMPermissionUtil.h"

#include <array>
#include <optional>
#include <utility>

#include "platform/ZMFormat.h"
#include "storage/ZMDatabaseHelper.h"
#include "tavo/ZMException.h"

namespace {

constexpr int32_t kGranted = 1;
constexpr int32_t kDenied = 2;

struct PermissionField {
  const char* name;
  std::optional<int64_t> ZMAppRowFields::*field;
};

// In the order getAllPermission reports them.
constexpr std::array<PermissionField, 5> kPermissionFields{{
    {"userInfo", &ZMAppRowFields::auth_user_info},
    {"location", &ZMAppRowFields::auth_location},
    {"record", &ZMAppRowFields::auth_record},
    {"writePhotosAlbum", &ZMAppRowFields::auth_write_photos_album},
    {"camera", &ZMAppRowFields::auth_camera},
}};

// Names are matched exactly: "Camera" is not a permission.
const PermissionField* findPermission(const std::string& name) {
  for (const auto& entry : kPermissionFields) {
    if (name == entry.name) return &entry;
  }
  return nullptr;
}

// A copy of the user's record for the app, taken on the store's queue where live records live.
std::optional<ZMAppRowFields> recordFields(const std::string& userId, const std::string& appId) {
  std::optional<ZMAppRowFields> fields;
  ZMDatabaseHelper::getInstance().sync([&] {
    if (auto row = ZMDatabaseHelper::getInstance().getAppRowByUserId(userId, appId)) {
      fields = static_cast<const ZMAppRowFields&>(*row);
    }
  });
  return fields;
}

}  // namespace

ZMPermissionUtil::ZMPermissionUtil(std::string userId) : userId_(std::move(userId)) {}

void ZMPermissionUtil::updatePermission(const std::string& appId,
                                        const std::vector<std::string>& granted,
                                        const std::vector<std::string>& denied) {
  if (appId.empty()) {
    ZMLogFormat("updatePermission appID is empty");
    return;
  }
  if (granted.empty() && denied.empty()) {
    ZMLogFormat("updatePermission grantedPers and deniedPers empty");
    return;
  }
  ZMRow row;
  row.user_id = userId_;
  // Denials are applied last, so a name in both lists ends as denied.
  _convertPermission(row, granted, kGranted);
  _convertPermission(row, denied, kDenied);
  row.app_id = appId;
  ZMDatabaseHelper::getInstance().updateOrInsertAppRow(row);
}

int64_t ZMPermissionUtil::getSinglePermission(const std::string& appId,
                                              const std::string& permission) {
  const auto fields = recordFields(userId_, appId);
  if (!fields) return 0;  // never opened: undecided, whatever the name
  const PermissionField* entry = findPermission(permission);
  if (!entry) throw ZMException("Permission", "getSinglePermission per param is error data");
  return ((*fields).*(entry->field)).value_or(0);
}

ZMValue ZMPermissionUtil::getAllPermission(const std::string& appId) {
  ZMValue answers = ZMValue::object();
  if (const auto fields = recordFields(userId_, appId)) {
    for (const auto& entry : kPermissionFields) {
      if (const auto& value = (*fields).*(entry.field)) answers[entry.name] = *value;
    }
  }
  return answers;
}

ZMRow& ZMPermissionUtil::_convertPermission(ZMRow& row, const std::vector<std::string>& permissions,
                                            int32_t type) {
  for (const auto& name : permissions) {
    if (const PermissionField* entry = findPermission(name)) row.*(entry->field) = type;
  }
  return row;
}
