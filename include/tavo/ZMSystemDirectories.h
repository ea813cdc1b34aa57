#pragma once

/// @file
/// ZMSystemDirectories and ZMDevice: where files go, and the facts libtavo reports.

#include <optional>
#include <string>

#include "tavo/ZMExport.h"

/// ZMSystemDirectories says where libtavo keeps its files when the host's options do not
/// (BUNDLE is the bundle identifier, UID the user's number):
///
///   Documents: $XDG_DATA_HOME/BUNDLE   (default ~/.local/share/BUNDLE) — the record store
///   Caches:    $XDG_CACHE_HOME/BUNDLE  (default ~/.cache/BUNDLE) — default storage roots
///   Temporary: $TMPDIR/BUNDLE-UID    (default /tmp/BUNDLE-UID, mode 0700)
/// The host may override each before ZMZimoGame::initRuntime; an empty override restores the
/// default. Call from the main thread.
class TAVO_EXPORT ZMSystemDirectories {
 public:
  /// Where the record store lives.
  static std::string documentsDirectory();
  /// Under which the default storage roots lie.
  static std::string cachesDirectory();
  /// Created with mode 0700 on first use.
  static std::string temporaryDirectory();

  /// Overrides the Documents directory (before ZMZimoGame::initRuntime; "" restores it).
  static void setDocumentsDirectory(const std::string& path);
  /// Overrides the Caches directory (likewise).
  static void setCachesDirectory(const std::string& path);
  /// Overrides the temporary directory (likewise).
  static void setTemporaryDirectory(const std::string& path);
};

/// ZMDevice holds the facts about this machine and host that libtavo reports. Setters are for the
/// host, before ZMZimoGame::initRuntime, on the main thread.
class TAVO_EXPORT ZMDevice {
 public:
  /// The host's bundle identifier (default: the executable's name).
  static std::string bundleIdentifier();
  /// Sets the bundle identifier (the directories above are named after it).
  static void setBundleIdentifier(const std::string& bundleId);
  /// The operating system's version (os-release VERSION_ID, else the kernel release).
  static std::string systemVersion();
  /// A stable UUID derived from /etc/machine-id and the bundle identifier; null when the machine
  /// has no id.
  static std::optional<std::string> identifierForVendor();
  /// Advertising tracking is off unless the host supplies an identifier.
  static std::optional<std::string> advertisingIdentifier();
  /// True when the host has supplied an advertising identifier.
  static bool isAdvertisingTrackingEnabled();
  /// Supplies (or, with null, withdraws) the advertising identifier.
  static void setAdvertisingIdentifier(std::optional<std::string> identifier);
  /// The processor family: "x86_64", "arm64", "armv7" or "i386".
  static std::string processorName();
};
