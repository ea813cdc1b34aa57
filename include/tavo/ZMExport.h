#pragma once

/// @file
/// TAVO_EXPORT.

/// TAVO_EXPORT marks the API that libtavo.so exports; everything else stays hidden.
#if defined(TAVO_BUILDING)
#define TAVO_EXPORT __attribute__((visibility("default")))
#else
#define TAVO_EXPORT
#endif
