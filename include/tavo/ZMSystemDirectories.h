#pragma once

#include <optional>
#include <string>

#include "tavo/ZMExport.h"

// ZMSystemDirectories says where libtavo keeps its files when the host's options do not.
//   Documents: $XDG_DATA_HOME/<bundle id>   (default ~/.local/share/<bundle id>) — the record store
//   Caches:    $XDG_CACHE_HOME/<bundle id>  (default ~/.cache/<bundle id>) — default storage roots
//   Temporary: $TMPDIR/<bundle id>-<uid>    (default /tmp/<bundle id>-<uid>, mode 0700)
// The host may override each before ZMZimoGame::initRuntime; an empty override restores the
// default. Call from the main thread.
class TAVO_EXPORT ZMSystemDirectories {
 public:
  static std::string documentsDirectory();
  static std::string cachesDirectory();
  // Created with mode 0700 on first use.
  static std::string temporaryDirectory();

  static void setDocumentsDirectory(const std::string& path);
  static void setCachesDirectory(const std::string& path);
  static void setTemporaryDirectory(const std::string& path);
};

// ZMDevice holds the facts about this machine and host that libtavo reports. Setters are for the
// host, before ZMZimoGame::initRuntime, on the main thread.
class TAVO_EXPORT ZMDevice {
 public:
  // The host's bundle identifier (default: the executable's name).
  static std::string bundleIdentifier();
  static void setBundleIdentifier(const std::string& bundleId);
  // The operating system's version (os-release VERSION_ID, else the kernel release).
  static std::string systemVersion();
  // A stable UUID derived from /etc/machine-id and the bundle identifier; null when the machine
  // has no id.
  static std::optional<std::string> identifierForVendor();
  // Advertising tracking is off unless the host supplies an identifier.
  static std::optional<std::string> advertisingIdentifier();
  static bool isAdvertisingTrackingEnabled();
  static void setAdvertisingIdentifier(std::optional<std::string> identifier);
  // The processor family: "x86_64", "arm64", "armv7" or "i386".
  static std::string processorName();
};
