#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tavo/ZMError.h"
#include "tavo/ZMValue.h"

// Pretty JSON in the form every libtavo file uses: two-space indent, "key" : value, "/" escaped
// as "\/", non-ASCII text written as UTF-8, empty containers as "{\n\n}" and "[\n\n]".
std::string ZMJSONPrettyString(const ZMValue& value);

// How deep arrays and objects may nest in parsed text. Every file and reply the library reads is
// a few levels deep; the bound keeps hostile text from building a tree that is too deep to print
// or compare without exhausting the stack.
inline constexpr int kZMJSONMaxDepth = 64;

// Parses UTF-8 JSON text nested at most kZMJSONMaxDepth levels. On failure returns null and,
// when `error` is given, fills it with a kZMCocoaErrorDomain error (code 3840) saying why.
std::optional<ZMValue> ZMJSONParse(std::string_view text, ZMError* error = nullptr);

// At most `limit` bytes of `value` as compact JSON, cut on a character boundary and marked
// "..." when cut, for log lines: a reply is never logged whole.
std::string ZMJSONLogText(const ZMValue& value, std::size_t limit = 1024);
