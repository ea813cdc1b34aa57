// Compiled into libmerin.so only: loading the library fills ZMGameHandle's slot with a fresh
// MerinGameHandle, and unloading it empties the slot again if it still holds that handle.
#include "merin/MerinGameHandle.h"

namespace {

struct MerinRegistrar {
  MerinRegistrar() : handle(MerinGameHandle::install()) {}
  ~MerinRegistrar() {
    if (auto current = handle.lock(); current && ZMGameHandle::getInstance() == current) {
      ZMGameHandle::setInstance(nullptr);
    }
  }
  std::weak_ptr<MerinGameHandle> handle;
};

const MerinRegistrar registrar;

}  // namespace
