#pragma once

#include <optional>
#include <string>
#include <string_view>

// Text conversions at the edges of `tavo serve`: names into URLs, request paths out of them,
// and anything a client sent into a log line.

// `text` with every byte but the unreserved ones (letters, digits, "-", ".", "_", "~")
// written as %XX, so that a file name is one path segment of a URL whatever it holds.
std::string PercentEncode(std::string_view text);

// `text` with each %XX turned back into its byte; null when a "%" is not followed by two hex
// digits.
std::optional<std::string> PercentDecode(std::string_view text);

// `text` for a log line that is read on a terminal: control bytes, "\" and every byte outside
// ASCII become \xNN, so that no escape sequence a client sends reaches the terminal.
std::string EscapeForLog(std::string_view text);
