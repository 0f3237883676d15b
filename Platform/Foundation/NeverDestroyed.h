#pragma once

// Moved; goes when nobody includes it by this name any more.
#include "Platform/Base/NeverDestroyed.h"  // IWYU pragma: export
