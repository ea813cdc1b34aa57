#pragma once

#include "tavo/ZMExport.h"

extern "C" {
// The library's version number (1.0) and its what(1) string, newline-terminated.
TAVO_EXPORT extern const double libtavoVersionNumber;
TAVO_EXPORT extern const unsigned char libtavoVersionString[];
}
