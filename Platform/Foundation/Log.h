#pragma once

// Moved; goes when nobody includes it by this name any more.
#include "Platform/Base/Log.h"  // IWYU pragma: export
