#pragma once

#include <exception>
#include <optional>
#include <string>

#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

// ZMException is thrown only where libtavo's contract throws: runtime creation failures (which
// reach ZMRuntimeInitListener::onInitializeFailure instead of propagating), a missing runtime
// ("ZimoRuntime error"), an unknown permission name, and some file utilities. It carries a name,
// a reason (absent for some creation failures) and optional user information.
class TAVO_EXPORT ZMException : public std::exception {
 public:
  ZMException(std::string name, std::optional<std::string> reason,
              std::optional<ZMValue> userInfo = std::nullopt);

  const std::string& name() const { return name_; }
  const std::optional<std::string>& reason() const { return reason_; }
  const std::optional<ZMValue>& userInfo() const { return userInfo_; }

  // The reason, or the name when there is no reason.
  const char* what() const noexcept override;

 private:
  std::string name_;
  std::optional<std::string> reason_;
  std::optional<ZMValue> userInfo_;
};

inline constexpr const char* kZMInvalidArgumentException = "NSInvalidArgumentException";
inline constexpr const char* kZMFileHandleOperationException = "NSFileHandleOperationException";
