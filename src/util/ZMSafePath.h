#pragma once

#include <string>
#include <string_view>

// ZMSafePath decides whether a name that came from outside may become part of a path, and joins
// it under a root. Every such name passes here before it reaches the file system: app ids and
// versions from a host's options or a game's "detail.json", user ids, plug-in providers,
// versions and hashes from a host or the plug-in service, a plug-in config's "updateHash".
//
// The rule, the same for every kind of name:
//   - A name that stands alone as a path component (an app id in app/<id>, a version in
//     app/<id>/<version>) is not empty, not "." or "..", and holds no "/" and no NUL.
//   - A part that is joined with fixed text into one component (provider and version in
//     "<provider>_<version>", hash, provider and version in "<hash>_<provider>_<version>.zip",
//     user and app in "<user>_<app>", app and version in "<app>.<version>.zgp") holds no "/" and
//     no NUL; it may be empty or a dot, since the fixed text keeps the component from being "."
//     or "..".
// NUL counts because the system cuts a path at it: "victim.zgp\0" would name "victim.zgp".
// Names inside a package are the engine's to check, entry by entry, as it unpacks.
//
// Stateless; safe on any thread.
class ZMSafePath {
 public:
  static bool isComponent(std::string_view name);
  static bool isNamePart(std::string_view part);
  // `root` + "/" + `name` when `name` is a component and `root` is not empty; otherwise "", the
  // storage layout's "no path", which names nothing and is never made.
  static std::string join(std::string_view root, std::string_view name);
};
