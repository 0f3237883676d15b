#pragma once

#include "Platform/Base/Export.h"

extern "C" {

/// "@(#)PROGRAM:Skelda_Watch  PROJECT:Skelda-1" and a line feed, for what(1) and the like.
SKELDA_EXPORT extern const char Skelda_WatchVersionString[];
/// 1.0
SKELDA_EXPORT extern const double Skelda_WatchVersionNumber;

}  // extern "C"
