#pragma once

#include <memory>
#include <string>

#include "tavo/ZMError.h"

// ZMStagedDirectory is a fresh directory beside a destination directory: an unpack fills it, and
// commit() then puts it in the destination's place in one step, so that a reader, or a crash at
// any moment, finds the old content or the new one, never a mix. Dropped without commit(), it is
// removed with what it holds.
//
// It is named "<parent>/.<destination name>.staging-XXXXXX", which no listing takes for an
// installed item, and locked while its owner holds it. A process killed mid-unpack leaves one
// behind; creating the next one for the same destination removes such leftovers once nobody
// holds their lock and they are a minute old.
//
// Owned by the one unpack that fills it; any thread, one at a time.
class ZMStagedDirectory {
 public:
  static std::unique_ptr<ZMStagedDirectory> create(const std::string& destination, ZMError* error);
  ~ZMStagedDirectory();
  ZMStagedDirectory(const ZMStagedDirectory&) = delete;
  ZMStagedDirectory& operator=(const ZMStagedDirectory&) = delete;

  const std::string& path() const { return path_; }
  // Replaces the destination (and whatever it held) with the staged directory.
  bool commit(ZMError* error);

 private:
  ZMStagedDirectory(std::string destination, std::string path, int lock);
  static void removeLeftovers(const std::string& destination);

  const std::string destination_;
  const std::string path_;
  int lock_;
  bool committed_ = false;
};
