#pragma once

/// @file
/// FileMD5HashCreateWithPath, the exported C function for a file's MD5 digest.

#include <stddef.h>

#include "tavo/ZMExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Computes the MD5 digest of the file at `path` (UTF-8), reading it in chunks of `chunkSize`
/// bytes (0 means 8192) so that memory stays one chunk whatever the file's size. Returns a
/// newly allocated NUL-terminated string of 32 lower-case hex digits, or NULL when the path is
/// NULL or the file cannot be opened or read (a directory cannot). The caller owns the result
/// and releases it with free().
TAVO_EXPORT char* FileMD5HashCreateWithPath(const char* path, size_t chunkSize);

#ifdef __cplusplus
}
#endif
