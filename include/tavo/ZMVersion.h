#pragma once

/// @file
/// The exported version symbols of libtavo.so.

#include "tavo/ZMExport.h"

extern "C" {
/// The library's version number (1.0).
TAVO_EXPORT extern const double libtavoVersionNumber;
/// Its what(1) string, newline-terminated.
TAVO_EXPORT extern const unsigned char libtavoVersionString[];
}
