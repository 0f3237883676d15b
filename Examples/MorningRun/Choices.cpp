#include "Examples/MorningRun/Choices.h"

#include "Skelda_Watch/SkeldaCCPA.h"
#include "Skelda_Watch/SkeldaConsent.h"
#include "Skelda_Watch/SkeldaUserProperties.h"

void Choices::atTheStart() {
  SkeldaUserProperties::setValues("shoes", SkeldaArray{"Wolke 7", "雲"});
  SkeldaUserProperties::setValue(SkeldaPropertyCurrencyPreference, "EUR");
  SkeldaUserProperties::flag(SkeldaPropertySubscriber);
  SkeldaConsent::updateConsentInformation(
      SkeldaConsent(true, {{"IAB", "COvzTO5OvzTO5BRAAAENAPCoALIAADgAAAAA"}}));
}

void Choices::atTheEnd() {
  SkeldaCCPA::setDataSaleOptOut(true);
  SkeldaCCPA::setDelete();
}
