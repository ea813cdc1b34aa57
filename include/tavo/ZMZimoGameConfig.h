#pragma once

/// @file
/// ZMZimoGameConfig, an installed game's configuration.

#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

/// ZMZimoGameConfig answers questions about an installed game's "game.config.json". Values are
/// returned as the file holds them, without type checks; each has a default for a missing key.
/// Immutable once made: safe on any thread.
class TAVO_EXPORT ZMZimoGameConfig {
 public:
  virtual ~ZMZimoGameConfig() = default;
  /// "landscape" (the default) or "portrait".
  virtual ZMValue deviceOrientation() const = 0;  // default "landscape"
  virtual bool showStatusBar() const = 0;         ///< default false
  /// The runtime version the game asks for (default "").
  virtual ZMValue runtimeVersion() const = 0;  // default ""
  virtual ZMValue subpackages() const = 0;     ///< default []
  /// The plug-ins the game declares: the "plugins" object's values ({"provider", "version"}),
  /// in file order.
  virtual ZMValue plugins() const = 0;  // the "plugins" object's values, in file order
};
