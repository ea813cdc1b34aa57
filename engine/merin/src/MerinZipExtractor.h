#pragma once

#include <functional>
#include <optional>
#include <string>

// Extracts the zip archive at `zipPath` under `destDir`, creating `destDir` (with its parents)
// when it is missing.
//
// Every entry is checked before anything is written: names that may not be installed
// (MerinEntryName.h), symbolic links, devices and sockets, encrypted entries and compression
// methods other than stored, Deflate, bzip2, LZMA and XZ make the whole archive fail. A FIFO
// entry (what zip stores for its standard input) is written as a regular file. Files are created
// through directory descriptors without following symbolic links, so a link already present in
// `destDir` is refused rather than followed.
//
// The entries are written by `workers` threads (0: one per core) that each read the archive
// through their own handle, in fixed-size chunks. `progress` is called on the calling thread
// only, with fractions of the uncompressed bytes from 0 to 1, non-decreasing, at most once per
// whole percent. Returns the failure message, or nothing on success.
std::optional<std::string> MerinExtractZip(const std::string& zipPath, const std::string& destDir,
                                           const std::function<void(float)>& progress,
                                           unsigned workers = 0);
