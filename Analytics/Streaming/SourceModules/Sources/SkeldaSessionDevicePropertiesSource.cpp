#include "Analytics/Streaming/SourceModules/Sources/SkeldaSessionDevicePropertiesSource.h"

#include <utility>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionDeviceProperties.h"

void SkeldaSessionDevicePropertiesSource::setSessionDevicePropertiesData(DataRef data) {
  post<&SkeldaSessionDevicePropertiesSource::onqueue_setSessionDevicePropertiesData>(
      std::move(data));
}

void SkeldaSessionDevicePropertiesSource::onqueue_setSessionDevicePropertiesData(DataRef data) {
  SKELDA_ON_QUEUE();
  sessionDevicePropertiesData_ = std::move(data);
}

SkeldaSessionDevicePropertiesSource::DataRef
SkeldaSessionDevicePropertiesSource::sessionDevicePropertiesData() {
  DataRef data;
  syncBlock([&] { data = sessionDevicePropertiesData_; });
  return data;
}

void SkeldaSessionDevicePropertiesSource::onqueue_reportFactsOf(
    SkeldaSessionDevicePropertiesDataProvider& provider) {
  SKELDA_ON_QUEUE();
  const auto data = provider.devicePropertiesData();
  if (!data) return;
  if (!sessionDevicePropertiesData_ || data->isStartFlag()) {
    // Without a start, whatever comes first counts as one.
    sessionDevicePropertiesData_ = data;
    onqueue_streamMessage(
        SkeldaStreamSessionDeviceProperties::dataWithSessionDevicePropertiesData(*data));
    return;
  }
  onqueue_updateWithData(*data);
}

void SkeldaSessionDevicePropertiesSource::onqueue_updateWithData(
    const SkeldaSessionDevicePropertiesData& end) {
  SKELDA_ON_QUEUE();
  auto message = SkeldaStreamSessionDeviceProperties::dataWithSessionDevicePropertiesData(
      *sessionDevicePropertiesData_);
  message->updateWithData(end);
  onqueue_streamMessage(std::move(message));
}
