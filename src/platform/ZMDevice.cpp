#include <openssl/evp.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <fstream>
#include <mutex>

#include "platform/ZMPath.h"
#include "tavo/ZMSystemDirectories.h"

namespace {

struct DeviceState {
  std::mutex mutex;
  std::string bundleId;
  std::optional<std::string> advertisingId;
};

DeviceState& device() {
  static DeviceState d;
  return d;
}

std::string executableName() {
  char buffer[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return "libtavo";
  return ZMLastPathComponent(std::string_view(buffer, static_cast<std::size_t>(n)));
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

}  // namespace

std::string ZMDevice::bundleIdentifier() {
  std::lock_guard lock(device().mutex);
  if (device().bundleId.empty()) device().bundleId = executableName();
  return device().bundleId;
}

void ZMDevice::setBundleIdentifier(const std::string& bundleId) {
  std::lock_guard lock(device().mutex);
  device().bundleId = bundleId;
}

std::string ZMDevice::systemVersion() {
  std::ifstream release("/etc/os-release");
  std::string line;
  while (std::getline(release, line)) {
    if (line.rfind("VERSION_ID=", 0) == 0) {
      std::string value = line.substr(11);
      if (value.size() >= 2 && value.front() == '"') value = value.substr(1, value.size() - 2);
      return value;
    }
  }
  struct utsname name {};
  return ::uname(&name) == 0 ? name.release : "";
}

std::optional<std::string> ZMDevice::identifierForVendor() {
  std::ifstream file("/etc/machine-id");
  std::string machineId;
  if (!std::getline(file, machineId) || trimmed(machineId).empty()) return std::nullopt;
  // A name-based UUID (version 5 layout over SHA-256 bytes) of the machine and the bundle, so
  // that two hosts on one machine see different ids and no raw machine id leaves the process.
  const std::string seed = trimmed(machineId) + "/" + bundleIdentifier();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(seed.data(), seed.size(), digest, &length, EVP_sha256(), nullptr);
  digest[6] = static_cast<unsigned char>((digest[6] & 0x0f) | 0x50);
  digest[8] = static_cast<unsigned char>((digest[8] & 0x3f) | 0x80);
  char text[37];
  std::snprintf(
      text, sizeof text, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
      digest[0], digest[1], digest[2], digest[3], digest[4], digest[5], digest[6], digest[7],
      digest[8], digest[9], digest[10], digest[11], digest[12], digest[13], digest[14], digest[15]);
  return std::string(text);
}

std::optional<std::string> ZMDevice::advertisingIdentifier() {
  std::lock_guard lock(device().mutex);
  return device().advertisingId;
}

bool ZMDevice::isAdvertisingTrackingEnabled() { return advertisingIdentifier().has_value(); }

void ZMDevice::setAdvertisingIdentifier(std::optional<std::string> identifier) {
  std::lock_guard lock(device().mutex);
  device().advertisingId = std::move(identifier);
}

std::string ZMDevice::processorName() {
#if defined(__x86_64__)
  return "x86_64";
#elif defined(__aarch64__)
  return "arm64";
#elif defined(__arm__)
  return "armv7";
#elif defined(__i386__)
  return "i386";
#else
  return "x86_64";
#endif
}
