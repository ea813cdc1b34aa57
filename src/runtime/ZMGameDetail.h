#pragma once

#include <optional>
#include <string>

#include "tavo/ZMValue.h"

// ZMGameDetail reads an app's "detail.json" (written at install) for its installed id and
// version. An unreadable or unparsable file leaves detailObj null. Immutable once made.
class ZMGameDetail {
 public:
  explicit ZMGameDetail(const std::string& path);  // initWithPath
  std::optional<std::string> gameId() const;
  std::optional<std::string> gameVersion() const;
  const std::optional<ZMValue>& detailObj() const { return detailObj_; }

 private:
  std::optional<ZMValue> detailObj_;
};
