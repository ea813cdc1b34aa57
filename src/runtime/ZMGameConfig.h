#pragma once

#include <memory>
#include <string>

#include "tavo/ZMZimoGameConfig.h"

// ZMGameConfig is an installed game's "game.config.json": orientation, status bar, required
// runtime version, subpackages and plug-ins, each with its default when the key is absent.
// Immutable once made: safe on any thread.
class ZMGameConfig : public ZMZimoGameConfig {
 public:
  // `init`: a configuration of defaults.
  ZMGameConfig() : gameConfigObj_(ZMValue::object()) {}
  // Null for an empty path, a missing file or a file that does not parse.
  static std::shared_ptr<ZMGameConfig> createGameCofingWithPath(const std::string& path);

  ZMValue deviceOrientation() const override;
  bool showStatusBar() const override;
  ZMValue runtimeVersion() const override;
  ZMValue subpackages() const override;
  ZMValue plugins() const override;

  const ZMValue& gameConfigObj() const { return gameConfigObj_; }

 private:
  const ZMValue* member(const char* key) const;
  ZMValue gameConfigObj_;
};
