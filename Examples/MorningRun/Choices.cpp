#include "Examples/MorningRun/Choices.h"

#include "Skelda_Watch/SkeldaCCPA.h"
#include "Skelda_Watch/SkeldaConsent.h"
#include "Skelda_Watch/SkeldaUserProperties.h"
#include "Skelda_Watch/SkeldaWatch.h"

unsigned Choices::atTheStart() {
  SkeldaWatch::setUserID("runner-0042");
  SkeldaUserProperties::setValues("shoes", SkeldaArray{"Wolke 7", "雲"});
  SkeldaUserProperties::setValue(SkeldaPropertyCurrencyPreference, "EUR");
  SkeldaUserProperties::flag(SkeldaPropertySubscriber);
  SkeldaConsent::updateConsentInformation(
      SkeldaConsent(true, {{"IAB", "COvzTO5OvzTO5BRAAAENAPCoALIAADgAAAAA"}}));
  return SkeldaWatch::startTimedEvent("MorningRun", {{"shoes", "Wolke 7"}});
}

unsigned Choices::atTheEnd() {
  const unsigned accepted = SkeldaWatch::endTimedEvent("MorningRun") +
                            SkeldaWatch::logPurchase("Bakery", {{"sk.ProductID", "brezel"},
                                                                {"sk.Quantity", "2"},
                                                                {"sk.Price", "1.80"},
                                                                {"sk.Currency", "EUR"}});
  SkeldaCCPA::setDataSaleOptOut(true);
  SkeldaCCPA::setDelete();
  return accepted;
}
