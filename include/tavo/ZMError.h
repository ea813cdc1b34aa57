#pragma once

/// @file
/// ZMError, the error value of every failure callback, and the platform domains and codes it
/// carries.

#include <cstdint>
#include <optional>
#include <string>

#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

/// ZMError is the error value that listeners receive: a domain, a signed code and optional user
/// information. Errors made by libtavo put their message in the domain; transport errors use
/// kZMURLErrorDomain with Foundation's codes. A value type: copy it freely, on any thread.
struct TAVO_EXPORT ZMError {
  /// An empty domain with code 0.
  ZMError() = default;
  /// An error of `domain` and `code`, with optional user information (an object).
  ZMError(std::string domain, int64_t code, std::optional<ZMValue> userInfo = std::nullopt);

  /// The message of an error libtavo makes, or a platform domain (kZMURLErrorDomain, ...).
  std::string domain;
  /// -1 or 0 for libtavo's own errors; the platform code (or HTTP status) otherwise.
  int64_t code = 0;
  std::optional<ZMValue> userInfo;  ///< an object when present

  /// The user information's "NSLocalizedDescription" text, or a generic sentence naming the
  /// domain and code when there is none.
  std::string localizedDescription() const;
  /// One line for logs: `Error Domain=DOMAIN Code=CODE "DESCRIPTION"`, then ` UserInfo=JSON`
  /// when there is user information.
  std::string description() const;

  /// Equal when domain, code and user information are.
  bool operator==(const ZMError&) const = default;
};

/// The user-information key of the human-readable text.
inline constexpr const char* kZMLocalizedDescriptionKey = "NSLocalizedDescription";
/// Transport errors (libcurl's, under Foundation's codes below).
inline constexpr const char* kZMURLErrorDomain = "NSURLErrorDomain";
/// An HTTP status of 400 or more, as the code.
inline constexpr const char* kZMNetServicesErrorDomain = "NSNetServicesErrorDomain";
/// File, JSON and record-store errors.
inline constexpr const char* kZMCocoaErrorDomain = "NSCocoaErrorDomain";

/// Foundation's transport codes, as carried by kZMURLErrorDomain errors.
inline constexpr int64_t kZMURLErrorCancelled =
    -999;  ///< cancelled (by a cancel, or a newer request of its kind)
inline constexpr int64_t kZMURLErrorBadURL = -1000;    ///< the URL does not parse
inline constexpr int64_t kZMURLErrorTimedOut = -1001;  ///< no byte arrived for the idle timeout
inline constexpr int64_t kZMURLErrorUnsupportedURL = -1002;  ///< not an HTTP or HTTPS URL
inline constexpr int64_t kZMURLErrorCannotFindHost = -1003;  ///< the host name does not resolve
inline constexpr int64_t kZMURLErrorCannotConnectToHost = -1004;     ///< the connection was refused
inline constexpr int64_t kZMURLErrorNetworkConnectionLost = -1005;   ///< the connection broke off
inline constexpr int64_t kZMURLErrorNotConnectedToInternet = -1009;  ///< no network
inline constexpr int64_t kZMURLErrorDataLengthExceedsMaximum =
    -1103;  ///< a reply larger than allowed
inline constexpr int64_t kZMURLErrorSecureConnectionFailed = -1200;  ///< the TLS handshake failed
inline constexpr int64_t kZMURLErrorServerCertificateUntrusted =
    -1202;  ///< the server's certificate is not trusted
inline constexpr int64_t kZMURLErrorCannotCreateFile =
    -3000;  ///< the download file cannot be created
inline constexpr int64_t kZMURLErrorCannotWriteToFile =
    -3003;                                         ///< the download file cannot be written
inline constexpr int64_t kZMURLErrorUnknown = -1;  ///< any other transport failure

/// Foundation's file codes, as carried by kZMCocoaErrorDomain errors.
inline constexpr int64_t kZMFileNoSuchFileError = 4;         ///< no such file
inline constexpr int64_t kZMFileWriteUnknownError = 512;     ///< the file cannot be written
inline constexpr int64_t kZMFileWriteFileExistsError = 516;  ///< something is in the way
inline constexpr int64_t kZMFileReadCorruptFileError = 259;  ///< the file cannot be read
inline constexpr int64_t kZMFileReadInapplicableStringEncodingError =
    261;                                                          ///< the text is not UTF-8
inline constexpr int64_t kZMPropertyListReadCorruptError = 3840;  ///< the JSON does not parse
