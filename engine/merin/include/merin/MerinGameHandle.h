#pragma once

#include <memory>

#include "tavo/ZMGameHandle.h"

#if defined(MERIN_BUILDING)
#define MERIN_EXPORT __attribute__((visibility("default")))
#else
#define MERIN_EXPORT
#endif

// MerinGameHandle is the reference engine: a headless game runner and a zip extractor.
class MERIN_EXPORT MerinGameHandle : public ZMGameHandle {
 public:
  // Creates a handle and puts it in ZMGameHandle's slot; returns it.
  static std::shared_ptr<MerinGameHandle> install();
};
