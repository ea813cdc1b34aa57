#pragma once

#include <zip.h>

#include <cstdint>
#include <string>

// Opens a zip archive for reading with libzip, the same way for the runtime's unpack limits and
// for the engine's extractor, so that both see the same entries.
//
// The archive is read through positioned reads on `fd` (a regular file open for reading, of
// `size` bytes), which the archive then owns: it is closed with the archive, or at once when the
// open fails. Bytes before the first entry whose offsets were not adjusted for them (a
// self-extracting stub, a shell line, any wrapper that prepends data) are skipped, as other
// extractors skip them. Returns the archive (the caller frees it with zip_discard), or nullptr
// with `error` set to the reason. A zip_t serves one thread at a time.
zip_t* ZMOpenZipArchive(int fd, uint64_t size, std::string* error);
