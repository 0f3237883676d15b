#include "Skelda_Watch/SkeldaVersion.h"

const char Skelda_WatchVersionString[] = "@(#)PROGRAM:Skelda_Watch  PROJECT:Skelda-1\n";
const double Skelda_WatchVersionNumber = 1.0;
