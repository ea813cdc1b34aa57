#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tavo/ZMError.h"
#include "tavo/ZMValue.h"

// Pretty JSON in the form every libtavo file uses: two-space indent, "key" : value, "/" escaped
// as "\/", non-ASCII text written as UTF-8, empty containers as "{\n\n}" and "[\n\n]".
std::string ZMJSONPrettyString(const ZMValue& value);

// Parses UTF-8 JSON text. On failure returns null and, when `error` is given, fills it with a
// kZMCocoaErrorDomain error (code 3840) describing the position.
std::optional<ZMValue> ZMJSONParse(std::string_view text, ZMError* error = nullptr);
