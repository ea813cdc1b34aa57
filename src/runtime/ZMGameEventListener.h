#pragma once

#include <cstdint>
#include <optional>

#include "tavo/ZMError.h"
#include "tavo/ZMValue.h"

// Game lifecycle events that the bridge broadcasts to its listeners (the plug-in manager).
enum ZMGameEvent : int32_t {
  ZMGameEventInit = 0,        // options: the creation options
  ZMGameEventCreate = 1,      // options: the launch's run options; receivers may add keys
  ZMGameEventRunSuccess = 2,  // options: {"rt_game_package_app_id": the running game's id}
  ZMGameEventDestroy = 5,     // options: null
};

// A receiver of game events. Returning an error stops the broadcast and, for events 0 and 1,
// fails the creation or launch.
class ZMGameEventListener {
 public:
  virtual ~ZMGameEventListener() = default;
  virtual std::optional<ZMError> onGameEvent(int32_t event, ZMValue& options) = 0;
};
