#pragma once

// Moved; goes when nobody includes it by this name any more.
#include "Platform/Base/Mutex.h"  // IWYU pragma: export
