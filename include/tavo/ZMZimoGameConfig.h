#pragma once

#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

// ZMZimoGameConfig answers questions about an installed game's "game.config.json". Values are
// returned as the file holds them, without type checks; each has a default for a missing key.
// Immutable once made: safe on any thread.
class TAVO_EXPORT ZMZimoGameConfig {
 public:
  virtual ~ZMZimoGameConfig() = default;
  virtual ZMValue deviceOrientation() const = 0;  // default "landscape"
  virtual bool showStatusBar() const = 0;         // default false
  virtual ZMValue runtimeVersion() const = 0;     // default ""
  virtual ZMValue subpackages() const = 0;        // default []
  virtual ZMValue plugins() const = 0;            // the "plugins" object's values, in file order
};
