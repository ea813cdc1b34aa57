#pragma once

// libtavo's public interface for hosts.
#include "tavo/ZMError.h"
#include "tavo/ZMException.h"
#include "tavo/ZMFileMD5.h"
#include "tavo/ZMFileUtils.h"
#include "tavo/ZMGameHandle.h"
#include "tavo/ZMGameListeners.h"
#include "tavo/ZMLog.h"
#include "tavo/ZMMainQueue.h"
#include "tavo/ZMOptionKeys.h"
#include "tavo/ZMPluginListeners.h"
#include "tavo/ZMSystemDirectories.h"
#include "tavo/ZMValue.h"
#include "tavo/ZMVersion.h"
#include "tavo/ZMZimoGame.h"
