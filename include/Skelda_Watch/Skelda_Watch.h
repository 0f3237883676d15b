#pragma once

#include "SkeldaCCPA.h"
#include "SkeldaConsent.h"
#include "SkeldaConstants.h"
#include "SkeldaResourceUsage.h"
#include "SkeldaUserProperties.h"
#include "SkeldaValue.h"
#include "SkeldaVersion.h"
#include "SkeldaWatch.h"
