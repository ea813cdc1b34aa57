#pragma once

#include <cstdint>
#include <optional>

#include "tavo/ZMError.h"
#include "tavo/ZMValue.h"

// Game lifecycle events that the bridge broadcasts to its receivers (the plug-in manager), with
// the thread each arrives on.
enum ZMGameEvent : int32_t {
  // The bridge is being built, inside initRuntime (the host's thread). Options: the creation
  // options.
  ZMGameEventInit = 0,
  // A game is about to be created, inside runGame (the host's thread). Options: the launch's run
  // options, which receivers may extend.
  ZMGameEventCreate = 1,
  // The engine reports that the game runs, on the engine's thread. Options:
  // {"rt_game_package_app_id": the running game's id}.
  ZMGameEventRunSuccess = 2,
  // The runtime ends, inside done() (the host's thread). Options: null.
  ZMGameEventDestroy = 5,
};

// A receiver of game events. Returning an error stops the broadcast and, for the init and create
// events, fails the creation or launch.
class ZMGameEventListener {
 public:
  virtual ~ZMGameEventListener() = default;
  virtual std::optional<ZMError> onGameEvent(ZMGameEvent event, ZMValue& options) = 0;
};
