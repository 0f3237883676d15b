#pragma once

#include "Platform/Foundation/Value.h"

/// The one dynamic type of the public face: null, boolean, numbers, text (UTF-8), bytes, date,
/// array, dictionary. Braces make dictionaries: {{"lap", 3}, {"pace", "5:10"}}.
using SkeldaValue = skelda::platform::Value;
/// A list of values: SkeldaArray{"tea", "coffee"}.
using SkeldaArray = skelda::platform::Array;
/// Text keys to values, in order of insertion.
using SkeldaDictionary = skelda::platform::Dictionary;
