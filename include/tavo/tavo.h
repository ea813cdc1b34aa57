#pragma once

/// @file
/// libtavo's public interface for hosts: includes every public header.
#include "tavo/ZMError.h"
#include "tavo/ZMException.h"
#include "tavo/ZMFileMD5.h"
#include "tavo/ZMFileUtils.h"
#include "tavo/ZMFutures.h"
#include "tavo/ZMGameHandle.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMListenerAdapters.h"
#include "tavo/ZMLog.h"
#include "tavo/ZMMainQueue.h"
#include "tavo/ZMOptionKeys.h"
#include "tavo/ZMPluginListeners.h"
#include "tavo/ZMSystemDirectories.h"
#include "tavo/ZMValue.h"
#include "tavo/ZMVersion.h"
#include "tavo/ZMZimoGame.h"
