#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "PackageDirectory.h"
#include "tavo/ZMValue.h"

// PluginQueries answers the runtime's two plug-in service queries from the packages of a
// PackageDirectory, each named <provider>_<version>.zip: "url" lists the packages asked for that
// exist, with their MD5 and URL; "hash" lists those whose MD5 differs from the hash the game
// has. It keeps no state of its own. Thread-safe.
class PluginQueries {
 public:
  enum class Kind { Url, Hash };

  explicit PluginQueries(PackageDirectory& packages) : packages_(packages) {}

  // The reply to a query body as the runtime writes it: code 200 and plugin_results, or code
  // 400 and a message when the body is not that form. A result's url is `packageBase`, "/" and
  // the file name, percent-encoded. With `mayBlock` false it reads no package, and is null when
  // one would have to be hashed first.
  std::optional<ZMValue> answer(Kind kind, std::string_view body, const std::string& packageBase,
                                bool mayBlock);

 private:
  PackageDirectory& packages_;
};
