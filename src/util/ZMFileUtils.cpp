#include "tavo/ZMFileUtils.h"

#include <algorithm>
#include <cstdlib>

#include "platform/ZMFileManager.h"
#include "platform/ZMFormat.h"
#include "platform/ZMJSON.h"
#include "platform/ZMPath.h"
#include "tavo/ZMException.h"
#include "tavo/ZMFileMD5.h"

namespace {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(const std::string& text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  auto continuation = [&](const unsigned char* at, unsigned char low, unsigned char high) {
    return at < end && *at >= low && *at <= high;
  };
  while (p < end) {
    const unsigned char c = *p;
    if (c < 0x80) {
      ++p;
    } else if (c >= 0xC2 && c <= 0xDF) {
      if (!continuation(p + 1, 0x80, 0xBF)) return false;
      p += 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      const unsigned char low = c == 0xE0 ? 0xA0 : 0x80;
      const unsigned char high = c == 0xED ? 0x9F : 0xBF;
      if (!continuation(p + 1, low, high) || !continuation(p + 2, 0x80, 0xBF)) return false;
      p += 3;
    } else if (c >= 0xF0 && c <= 0xF4) {
      const unsigned char low = c == 0xF0 ? 0x90 : 0x80;
      const unsigned char high = c == 0xF4 ? 0x8F : 0xBF;
      if (!continuation(p + 1, low, high) || !continuation(p + 2, 0x80, 0xBF) ||
          !continuation(p + 3, 0x80, 0xBF)) {
        return false;
      }
      p += 4;
    } else {
      return false;
    }
  }
  return true;
}

ZMError notUTF8Error(const std::string& path) {
  return ZMError(
      kZMCocoaErrorDomain, kZMFileReadInapplicableStringEncodingError,
      ZMValue{{kZMLocalizedDescriptionKey,
               "The file \u201c" + ZMLastPathComponent(path) +
                   "\u201d couldn\u2019t be opened using text encoding Unicode (UTF-8)."},
              {"NSFilePath", path},
              {"NSStringEncoding", 4}});
}

}  // namespace

std::optional<std::string> ZMFileUtils::readStringFromFile(const std::string& path) {
  if (!isExist(path)) return std::nullopt;
  ZMError error;
  std::optional<std::string> text = ZMFileManager::readFile(path, &error);
  if (!text) {
    ZMLogFormat("read file error: %@", {error});
    return std::nullopt;
  }
  if (!isValidUTF8(*text)) {
    ZMLogFormat("read file error: %@", {notUTF8Error(path)});
    return std::nullopt;
  }
  return text;
}

std::optional<ZMValue> ZMFileUtils::readJSONObjectFromFile(const std::string& path) {
  if (!isExist(path)) return std::nullopt;
  const std::optional<std::string> text = readStringFromFile(path);
  if (!text) return std::nullopt;  // the read error is already logged
  ZMError error;
  std::optional<ZMValue> value = ZMJSONParse(*text, &error);
  // Only a dictionary or an array is a JSON document here; a bare scalar is a format error.
  if (value && !value->is_object() && !value->is_array()) {
    value.reset();
    error = ZMError(kZMCocoaErrorDomain, kZMPropertyListReadCorruptError,
                    ZMValue{{kZMLocalizedDescriptionKey,
                             "The data couldn\u2019t be read because it isn\u2019t in the correct "
                             "format. (JSON text did not start with array or object.)"}});
  }
  if (!value) ZMLogFormat("read json file error: %@", {error});
  return value;
}

ZMValue ZMFileUtils::readJSONArrayFromFile(const std::string&) { return ZMValue::array(); }

std::string ZMFileUtils::writeStringToFile(const ZMValue&) { return {}; }

bool ZMFileUtils::isExist(const std::string& path) {
  return !path.empty() && ZMFileManager::kindOfItem(path).exists;
}

bool ZMFileUtils::isDirectory(const std::string&) { return false; }

void ZMFileUtils::validateDirectory(const std::string& path) {
  if (!ensureDirExists(path) || !ZMFileManager::isWritable(path)) {
    throw ZMException(kZMFileHandleOperationException, "file no found");
  }
}

void ZMFileUtils::deleteFileInFolder(const std::string& folder,
                                     const std::vector<std::string>& excepts) {
  const auto names = ZMFileManager::contentsOfDirectory(folder, nullptr);
  if (!names) return;
  for (const auto& name : *names) {
    // The keep list holds full paths, so bare names never match.
    const std::string full = folder + "/" + name;
    if (std::find(excepts.begin(), excepts.end(), full) != excepts.end()) continue;
    ZMFileManager::removeItem(full, nullptr);
  }
}

bool ZMFileUtils::deleteFile(const std::string& path) {
  if (!isExist(path)) return true;
  ZMError error;
  if (!ZMFileManager::removeItem(path, &error)) {
    ZMLogFormat("delete file fail: %@", {error});
    return false;
  }
  return true;
}

bool ZMFileUtils::deleteRecursive(const std::string&) { return false; }

bool ZMFileUtils::isExcluded(const std::string&, const std::vector<std::string>&) { return false; }

bool ZMFileUtils::ensureDirExists(const std::string& path) {
  const ZMFileManager::Kind kind = ZMFileManager::kindOfItem(path);
  if (kind.exists && !kind.isDirectory) {
    throw ZMException(kZMInvalidArgumentException, ZMFormat("%@ is a file", {path}));
  }
  if (kind.exists) return true;
  ZMError error;
  if (!ZMFileManager::createDirectory(path, &error)) {
    ZMLogFormat("creat Directory Failed. errorInfo:%@", {error});
    return false;
  }
  return true;
}

bool ZMFileUtils::renameFile(const std::string&, const std::string&) { return false; }

bool ZMFileUtils::copyFile(const std::string&, const std::string&) { return false; }

std::string ZMFileUtils::getFileName(const std::string&, bool) { return {}; }

std::string ZMFileUtils::ensurePathEndsWithSlash(const std::string&) { return {}; }

std::string ZMFileUtils::removeLastSlash(const std::string&) { return {}; }

std::string ZMFileUtils::byteArrayToHex(const unsigned char*) { return {}; }

std::optional<std::string> ZMFileUtils::getFileMD5(const std::string& path) {
  if (!isExist(path)) return std::string();
  char* hash = FileMD5HashCreateWithPath(path.c_str(), 8192);
  if (!hash) return std::nullopt;
  std::string result(hash);
  std::free(hash);
  return result;
}

std::string ZMFileUtils::getStringMD5(const std::string&) { return {}; }

bool ZMFileUtils::isFileMD5Correct(const std::string&, const std::string&) { return false; }

bool ZMFileUtils::isAllFilesMD5Correct(const std::string&, const ZMValue&) { return false; }

bool ZMFileUtils::isDirectoryEmpty(const std::string& path) {
  const ZMFileManager::Kind kind = ZMFileManager::kindOfItem(path);
  if (!kind.exists) {
    throw ZMException(kZMInvalidArgumentException, ZMFormat("%@ is not exist", {path}));
  }
  if (!kind.isDirectory) {
    throw ZMException(kZMInvalidArgumentException, ZMFormat("%@ is not directory", {path}));
  }
  ZMError error;
  const auto names = ZMFileManager::contentsOfDirectory(path, &error);
  if (!names) throw error;
  return names->empty();
}
