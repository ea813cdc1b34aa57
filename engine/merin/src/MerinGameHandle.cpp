#include "merin/MerinGameHandle.h"

extern "C" MERIN_EXPORT const char __watermark_sign[] = "merin-reference-engine";
