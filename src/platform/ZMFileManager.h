#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tavo/ZMError.h"

struct stat;

// ZMFileManager is the file-system layer under the file utilities (Foundation's file manager):
// every failure comes back as a kZMCocoaErrorDomain error whose description names the path and
// the system's reason. Stateless; safe on any thread.
class ZMFileManager {
 public:
  struct Kind {
    bool exists = false;
    bool isDirectory = false;
  };
  // Follows symbolic links, as Foundation's existence test does.
  static Kind kindOfItem(const std::string& path);
  static bool isWritable(const std::string& path);
  static bool createDirectory(const std::string& path, ZMError* error);  // with intermediates
  // Removes a file, a symbolic link (not its target) or a whole directory tree.
  static bool removeItem(const std::string& path, ZMError* error);
  // Fails (code 516) when something exists at `to`; never overwrites.
  static bool moveItem(const std::string& from, const std::string& to, ZMError* error);
  // Puts the file or directory `from` at `to` in one step, replacing whatever is there (a whole
  // directory too, which is then removed): a reader, or a crash, finds the old item or the new
  // one, never a mix or nothing. Both must be on one file system. Where the file system cannot
  // swap two directories, the old one is moved aside first, and for that instant `to` is empty.
  static bool replaceItem(const std::string& from, const std::string& to, ZMError* error);
  // A new empty directory beside `path`, named "<parent>/.<name>.<tag>-XXXXXX", the parent made
  // as needed; null with `error` filled when it cannot be made.
  static std::optional<std::string> createSiblingDirectory(const std::string& path,
                                                           std::string_view tag, ZMError* error);
  // Names of the immediate entries (hidden ones included), in the file system's order.
  static std::optional<std::vector<std::string>> contentsOfDirectory(const std::string& path,
                                                                     ZMError* error);
  // Modification time in seconds since 1970; null when the attributes cannot be read.
  static std::optional<double> modificationDate(const std::string& path);
  static std::optional<std::string> readFile(const std::string& path, ZMError* error);
  // A read-only descriptor of `path` when it is a regular file (not following a final symbolic
  // link unless `followLinks`), else -1 with errno saying why (EISDIR for a directory, EINVAL for
  // another kind of file). Opening never waits: a FIFO in a file's place is refused, not waited
  // on. `info`, when given, receives the file's attributes.
  static int openRegularFile(const std::string& path, bool followLinks,
                             struct stat* info = nullptr);
  // Writes to a temporary sibling, flushes it and renames it over `path`.
  static bool writeFileAtomically(const std::string& path, std::string_view data, ZMError* error);
};
