#include "Skelda_Watch/SkeldaCCPA.h"

#include "Analytics/Streaming/SourceModules/Sources/ISkeldaCCPASource.h"
#include "Analytics/Watch/SkeldaPublicEntry.h"

void SkeldaCCPA::setDataSaleOptOut(bool optOut) noexcept {
  skelda::publicEntry([&] {
    if (const auto source = skelda::publicSource<ISkeldaCCPASource>()) {
      source->setCCPAOptOut(optOut);
    }
  });
}

void SkeldaCCPA::setDelete() noexcept {
  skelda::publicEntry([&] {
    if (const auto source = skelda::publicSource<ISkeldaCCPASource>()) source->setCCPADelete();
  });
}
