#include "tavo/ZMException.h"

#include <utility>

ZMException::ZMException(std::string name, std::optional<std::string> reason,
                         std::optional<ZMValue> userInfo)
    : name_(std::move(name)), reason_(std::move(reason)), userInfo_(std::move(userInfo)) {}

const char* ZMException::what() const noexcept {
  return reason_ ? reason_->c_str() : name_.c_str();
}
