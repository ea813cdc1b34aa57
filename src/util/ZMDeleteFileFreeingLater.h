#pragma once

#include <string>

// Deletes `path` as ZMFileUtils::deleteFile does and returns its result. When `path` is a
// regular file, the storage it held is given back off the calling thread: a descriptor taken
// before the unlink is closed on the global queue, and that last close is what frees the blocks
// (about 10 ms for a 150 MB package on tmpfs, more on a disk). The name is gone on return, so
// what a caller reports next sees the file deleted.
bool ZMDeleteFileFreeingLater(const std::string& path);
