#pragma once

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaSessionDevicePropertiesSource.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionDevicePropertiesDataProvider.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"

/// Sends each start snapshot as it is, and an end snapshot together with the start it belongs to.
class SkeldaSessionDevicePropertiesSource
    : public SkeldaProviderFedSource<SkeldaSessionDevicePropertiesSource,
                                     ISkeldaSessionDevicePropertiesSource,
                                     SkeldaSessionDevicePropertiesDataProvider> {
 public:
  static constexpr std::string_view kClassName = "SkeldaSessionDevicePropertiesSource";
  void setSessionDevicePropertiesData(DataRef data) override;
  DataRef sessionDevicePropertiesData() override;

 private:
  friend SkeldaSource;
  SkeldaSessionDevicePropertiesSource() = default;
  void onqueue_setSessionDevicePropertiesData(DataRef data);
  void onqueue_updateWithData(const SkeldaSessionDevicePropertiesData& end);
  void onqueue_reportFactsOf(SkeldaSessionDevicePropertiesDataProvider& provider) override;

  DataRef sessionDevicePropertiesData_;
};
