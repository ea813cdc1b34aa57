#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "storage/ZMAppRow.h"
#include "tavo/ZMCoreListeners.h"

// ZMPermissionUtil keeps one user's permission answers per app in the app records ("userInfo",
// "location", "record", "writePhotosAlbum", "camera"; 1 granted, 2 denied, 0 never answered).
// The runtime makes one per user and hands it to the engine, which calls it on its own threads;
// the record store serialises the work on its own queue.
class ZMPermissionUtil : public ZMCorePermissionListener {
 public:
  explicit ZMPermissionUtil(std::string userId);

  void updatePermission(const std::string& appId, const std::vector<std::string>& granted,
                        const std::vector<std::string>& denied) override;
  int64_t getSinglePermission(const std::string& appId, const std::string& permission) override;
  ZMValue getAllPermission(const std::string& appId) override;

  const std::string& userId() const { return userId_; }

 private:
  ZMRow& _convertPermission(ZMRow& row, const std::vector<std::string>& permissions, int32_t type);

  const std::string userId_;
};
