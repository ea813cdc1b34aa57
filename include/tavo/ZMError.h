#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

// ZMError is the error value that listeners receive: a domain, a signed code and optional user
// information. Errors made by libtavo put their message in the domain; transport errors use
// kZMURLErrorDomain with Foundation's codes. A value type: copy it freely, on any thread.
struct TAVO_EXPORT ZMError {
  ZMError() = default;
  ZMError(std::string domain, int64_t code, std::optional<ZMValue> userInfo = std::nullopt);

  std::string domain;
  int64_t code = 0;
  std::optional<ZMValue> userInfo;  // an object when present

  // The user information's "NSLocalizedDescription" text, or a generic sentence naming the
  // domain and code when there is none.
  std::string localizedDescription() const;
  // One line for logs: Error Domain=<domain> Code=<code> "<description>" [UserInfo=<json>].
  std::string description() const;

  bool operator==(const ZMError&) const = default;
};

inline constexpr const char* kZMLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr const char* kZMURLErrorDomain = "NSURLErrorDomain";
inline constexpr const char* kZMNetServicesErrorDomain = "NSNetServicesErrorDomain";
inline constexpr const char* kZMCocoaErrorDomain = "NSCocoaErrorDomain";

// Foundation's transport codes, as carried by kZMURLErrorDomain errors.
inline constexpr int64_t kZMURLErrorCancelled = -999;
inline constexpr int64_t kZMURLErrorBadURL = -1000;
inline constexpr int64_t kZMURLErrorTimedOut = -1001;
inline constexpr int64_t kZMURLErrorUnsupportedURL = -1002;
inline constexpr int64_t kZMURLErrorCannotFindHost = -1003;
inline constexpr int64_t kZMURLErrorCannotConnectToHost = -1004;
inline constexpr int64_t kZMURLErrorNetworkConnectionLost = -1005;
inline constexpr int64_t kZMURLErrorNotConnectedToInternet = -1009;
inline constexpr int64_t kZMURLErrorDataLengthExceedsMaximum = -1103;
inline constexpr int64_t kZMURLErrorSecureConnectionFailed = -1200;
inline constexpr int64_t kZMURLErrorServerCertificateUntrusted = -1202;
inline constexpr int64_t kZMURLErrorCannotCreateFile = -3000;
inline constexpr int64_t kZMURLErrorCannotWriteToFile = -3003;
inline constexpr int64_t kZMURLErrorUnknown = -1;

// Foundation's file codes, as carried by kZMCocoaErrorDomain errors.
inline constexpr int64_t kZMFileNoSuchFileError = 4;
inline constexpr int64_t kZMFileWriteUnknownError = 512;
inline constexpr int64_t kZMFileWriteFileExistsError = 516;
inline constexpr int64_t kZMFileReadCorruptFileError = 259;
inline constexpr int64_t kZMFileReadInapplicableStringEncodingError = 261;
inline constexpr int64_t kZMPropertyListReadCorruptError = 3840;
