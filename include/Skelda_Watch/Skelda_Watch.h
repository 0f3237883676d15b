#pragma once

#include "SkeldaAccount.h"
#include "SkeldaCCPA.h"
#include "SkeldaConsent.h"
#include "SkeldaConstants.h"
#include "SkeldaHost.h"
#include "SkeldaResourceUsage.h"
#include "SkeldaStatus.h"
#include "SkeldaUserProperties.h"
#include "SkeldaValue.h"
#include "SkeldaVersion.h"
#include "SkeldaWatch.h"
