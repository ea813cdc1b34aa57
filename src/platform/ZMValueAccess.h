#pragma once

#include <optional>
#include <string>

#include "tavo/ZMValue.h"

// The text under `key` of an options object; null when the options are not an object or the
// value is absent or not text.
std::optional<std::string> ZMTextOption(const ZMValue& options, const char* key);

// A value's truth as Foundation's boolValue reads it: booleans as they are, numbers when
// non-zero, texts that start with y/Y/t/T or read as a non-zero number.
bool ZMTruthOf(const ZMValue& value);
