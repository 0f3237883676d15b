#include "Skelda_Watch/SkeldaCCPA.h"

#include "Analytics/Watch/SkeldaPublicEntry.h"

void SkeldaCCPA::setDataSaleOptOut(bool optOut) noexcept {
  skelda::choice(SkeldaIntakeCall::Kind::optOut, platform::Value(optOut));
}

void SkeldaCCPA::setDelete() noexcept {
  skelda::choice(SkeldaIntakeCall::Kind::deletion);
}
