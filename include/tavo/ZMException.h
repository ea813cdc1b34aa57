#pragma once

/// @file
/// ZMException and the exception names libtavo uses.

#include <exception>
#include <optional>
#include <string>

#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

/// ZMException is thrown only where libtavo's contract throws: runtime creation failures (which
/// reach ZMRuntimeInitListener::onInitializeFailure instead of propagating), a missing runtime
/// ("ZimoRuntime error"), an unknown permission name, and some file utilities. It carries a name,
/// a reason (absent for some creation failures) and optional user information.
class TAVO_EXPORT ZMException : public std::exception {
 public:
  /// An exception named `name`, with an optional reason and user information.
  ZMException(std::string name, std::optional<std::string> reason,
              std::optional<ZMValue> userInfo = std::nullopt);

  /// The exception's name ("init fail", kZMInvalidArgumentException, ...).
  const std::string& name() const { return name_; }
  /// Why, when known.
  const std::optional<std::string>& reason() const { return reason_; }
  /// User information, an object when present.
  const std::optional<ZMValue>& userInfo() const { return userInfo_; }

  /// The reason, or the name when there is no reason.
  const char* what() const noexcept override;

 private:
  std::string name_;
  std::optional<std::string> reason_;
  std::optional<ZMValue> userInfo_;
};

/// A file utility was given a path it cannot use.
inline constexpr const char* kZMInvalidArgumentException = "NSInvalidArgumentException";
/// A directory is missing or not writable.
inline constexpr const char* kZMFileHandleOperationException = "NSFileHandleOperationException";
