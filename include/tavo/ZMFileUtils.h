#pragma once

/// @file
/// ZMFileUtils, the library's file plumbing.

#include <optional>
#include <string>
#include <vector>

#include "tavo/ZMExport.h"
#include "tavo/ZMValue.h"

/// ZMFileUtils is the file plumbing every subsystem calls: existence tests, directory guarantees,
/// deletion, UTF-8 text and JSON reading, file MD5. Stateless class operations, safe from any
/// thread. An empty path is a missing path. Some operations are placeholders with fixed results
/// (marked below); hosts may rely on those values, so they stay as they are.
class TAVO_EXPORT ZMFileUtils {
 public:
  /// Null when nothing is at the path; logs "read file error: %@" on a read or UTF-8 error.
  static std::optional<std::string> readStringFromFile(const std::string& path);
  /// Null when missing or unreadable; logs "read json file error: %@" on a parse error.
  static std::optional<ZMValue> readJSONObjectFromFile(const std::string& path);
  static ZMValue readJSONArrayFromFile(const std::string& path);  ///< placeholder: []
  static std::string writeStringToFile(const ZMValue& object);    ///< placeholder: ""
  /// Whether anything (a file, a directory, a link) is at the path.
  static bool isExist(const std::string& path);
  static bool isDirectory(const std::string& path);  ///< placeholder: false
  /// ensureDirExists, then requires the directory to be writable, else throws
  /// NSFileHandleOperationException "file no found". Rethrows what ensureDirExists throws.
  static void validateDirectory(const std::string& path);
  /// Removes every immediate entry of `folder` whose full path is not in `excepts`.
  static void deleteFileInFolder(const std::string& folder,
                                 const std::vector<std::string>& excepts);
  /// True when nothing is at the path or it was removed; logs "delete file fail: %@" otherwise.
  static bool deleteFile(const std::string& path);
  static bool deleteRecursive(const std::string& path);  ///< placeholder: false
  static bool isExcluded(const std::string& path,
                         const std::vector<std::string>& excepts);  ///< placeholder: false
  /// True when the directory exists or was created with its parents; throws
  /// NSInvalidArgumentException "%@ is a file" when a non-directory is there; logs
  /// "creat Directory Failed. errorInfo:%@" and returns false when creation fails.
  static bool ensureDirExists(const std::string& path);
  static bool renameFile(const std::string& oldPath,
                         const std::string& newPath);                        ///< placeholder: false
  static bool copyFile(const std::string& src, const std::string& dst);      ///< placeholder: false
  static std::string getFileName(const std::string& path, bool withSuffix);  ///< placeholder: ""
  static std::string ensurePathEndsWithSlash(const std::string& path);       ///< placeholder: ""
  static std::string removeLastSlash(const std::string& path);               ///< placeholder: ""
  static std::string byteArrayToHex(const unsigned char* bytes);             ///< placeholder: ""
  /// "" for a missing file, null when the digest fails, else 32 lower-case hex digits.
  static std::optional<std::string> getFileMD5(const std::string& path);
  static std::string getStringMD5(const std::string& text);  ///< placeholder: ""
  static bool isFileMD5Correct(const std::string& path,
                               const std::string& md5);  ///< placeholder: false
  static bool isAllFilesMD5Correct(const std::string& folder,
                                   const ZMValue& list);  ///< placeholder: false
  /// Throws NSInvalidArgumentException "%@ is not exist" / "%@ is not directory", or the listing's
  /// ZMError itself.
  static bool isDirectoryEmpty(const std::string& path);
};
