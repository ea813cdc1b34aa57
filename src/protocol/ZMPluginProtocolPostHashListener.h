#pragma once

#include "tavo/ZMError.h"
#include "tavo/ZMValue.h"

// What ZMPluginProtocolPostHash reports to the plug-in update flow, on the main queue: at most
// once per request, and never for a game with no installed plug-in to ask about.
class ZMPluginProtocolPostHashListener {
 public:
  virtual ~ZMPluginProtocolPostHashListener() = default;
  // The reply's "plugin_results" as received: the plug-ins that have a newer package. Null when
  // the reply had none; an empty array means nothing to update.
  virtual void onGetUpdatePluginList(const ZMValue& pluginResults) = 0;
  // A transport error as the client gave it, or a service refusal (message in the domain, code
  // 0).
  virtual void onPostHashFailure(const ZMError& error) = 0;
};
