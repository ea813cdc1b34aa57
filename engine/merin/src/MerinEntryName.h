#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Where an entry of a package installs: the path below the destination that its stored name
// maps to, the same for every entry whatever tool wrote the archive.
//
// `raw` is the name as stored (or as a Unicode Path field gives it where that field's check
// matches), `decoded` the same in UTF-8 (a name without the UTF-8 flag that is not UTF-8 reads as
// code page 437), `host` the archive's "version made by" system. A name may hold any character
// but the control characters U+0001 to U+001F and U+007F; "\" separates directories where the
// entry comes from a DOS, OS/2 or Windows file system (which knows no other separator) and is an
// ordinary character elsewhere. Names that are absolute or climb out with ".." are refused.
struct MerinEntryName {
  std::string path;  // below the destination, "/"-separated; empty for the destination itself
  bool isDirectory = false;
};

// Maps the name; returns the refusal when the name may not be installed. An empty path ("./")
// is the destination itself.
std::optional<std::string> MerinMapEntryName(std::string_view raw, std::string_view decoded,
                                             uint8_t host, MerinEntryName* out);

// The name quoted for a message, a control character written as \xNN.
std::string MerinQuotedName(std::string_view name);
