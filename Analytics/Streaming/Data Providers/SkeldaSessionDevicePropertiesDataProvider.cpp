#include "Analytics/Streaming/Data Providers/SkeldaSessionDevicePropertiesDataProvider.h"

#include <utility>

SkeldaSessionDevicePropertiesDataProvider::SkeldaSessionDevicePropertiesDataProvider()
    : SkeldaDataProvider(std::string(kClassName)) {}

std::shared_ptr<SkeldaSessionDevicePropertiesDataProvider>
SkeldaSessionDevicePropertiesDataProvider::getInstance() {
  return made(new SkeldaSessionDevicePropertiesDataProvider());
}

void SkeldaSessionDevicePropertiesDataProvider::startup() {
  sendSessionDevicePropertiesForStart(true);
}

void SkeldaSessionDevicePropertiesDataProvider::sendSessionDevicePropertiesForStart(bool isStart) {
  post<&SkeldaSessionDevicePropertiesDataProvider::onqueue_sendDataForStart>(isStart);
}

SkeldaSessionDevicePropertiesDataProvider::DataRef
SkeldaSessionDevicePropertiesDataProvider::devicePropertiesData() {
  DataRef data;
  syncBlock([&] { data = devicePropertiesData_; });
  return data;
}

void SkeldaSessionDevicePropertiesDataProvider::setDevicePropertiesData(DataRef data) {
  asyncBlock([self = selfOf(this), data = std::move(data)] { self->devicePropertiesData_ = data; });
}

void SkeldaSessionDevicePropertiesDataProvider::dataProviderDidUpdate(
    std::shared_ptr<SkeldaDataProvider> provider) {
  post<&SkeldaSessionDevicePropertiesDataProvider::onqueue_dataProviderDidUpdate>(
      std::move(provider));
}

void SkeldaSessionDevicePropertiesDataProvider::onqueue_sendDataForStart(bool isStart) {
  SKELDA_ON_QUEUE();
  devicePropertiesData_ = SkeldaSessionDevicePropertiesData::currentSnapshot(isStart);
  notifyObservers();
}

void SkeldaSessionDevicePropertiesDataProvider::onqueue_dataProviderDidUpdate(
    const std::shared_ptr<SkeldaDataProvider>&) {
  SKELDA_ON_QUEUE();
  // No figure comes from another provider yet.
}
