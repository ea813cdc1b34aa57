#include "tavo/ZMVersion.h"

extern "C" {
const double libtavoVersionNumber = 1.0;
const unsigned char libtavoVersionString[] = "@(#)PROGRAM:libtavo  PROJECT:libtavo-1\n";
}
