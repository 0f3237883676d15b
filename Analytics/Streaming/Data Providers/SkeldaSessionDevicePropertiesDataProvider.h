#pragma once

#include <memory>

#include "Analytics/Streaming/Data Providers/SkeldaDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionDevicePropertiesData.h"

/// Takes a snapshot of the device's resource figures when asked and offers the last one.
class SkeldaSessionDevicePropertiesDataProvider : public SkeldaDataProvider,
                                                  public ISkeldaDataProviderObserver {
 public:
  static constexpr std::string_view kClassName = "SkeldaSessionDevicePropertiesDataProvider";
  using DataRef = std::shared_ptr<const SkeldaSessionDevicePropertiesData>;

  /// A new provider each time; the manager's registry keeps the one in use.
  static std::shared_ptr<SkeldaSessionDevicePropertiesDataProvider> getInstance();
  std::string_view className() const noexcept override { return kClassName; }

  /// Takes a start snapshot.
  void startup() override;
  /// Takes a snapshot marked as given and tells the observers. Any thread, returns at once.
  void sendSessionDevicePropertiesForStart(bool isStart);
  /// The last snapshot, or null. Any thread; waits for the provider's queue.
  DataRef devicePropertiesData();
  /// Puts a snapshot taken elsewhere in the place of the last one; observers are not told.
  void setDevicePropertiesData(DataRef data);

  void dataProviderDidUpdate(std::shared_ptr<SkeldaDataProvider> provider) override;

 protected:
  SkeldaSessionDevicePropertiesDataProvider();
  bool canSendData() const override { return devicePropertiesData_ != nullptr; }
  void onqueue_sendDataForStart(bool isStart);
  void onqueue_dataProviderDidUpdate(const std::shared_ptr<SkeldaDataProvider>& provider);

 private:
  DataRef devicePropertiesData_;
};
