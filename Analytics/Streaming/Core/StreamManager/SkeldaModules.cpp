#include "Analytics/Streaming/Core/StreamManager/SkeldaModules.h"

#include <string>

#include "Analytics/Streaming/Data Providers/SkeldaAppStateDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionDevicePropertiesDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoDataProvider.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppOrientationSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppStateSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaCCPASource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaDevicePropertiesSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaEventFrameSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaLocaleInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaNetworkStatusSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaReportedIdentifiersSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSessionDevicePropertiesSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSessionInitInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaStreamFlushSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaTimeZoneInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaUserDemographicsSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaUserPropertiesSource.h"
#include "Platform/Dispatch/Once.h"
#include "Platform/Foundation/ClassRegistry.h"

namespace {

template <class Source, class Protocol, class... MoreProtocols>
void registerSource() {
  platform::ClassRegistry::shared().registerClass(
      {std::string(Source::kClassName),
       "SkeldaActorStreamComponentBase",
       {std::string(Protocol::kProtocolName), std::string(ISkeldaFrameSource::kProtocolName),
        std::string(MoreProtocols::kProtocolName)...},
       [] { return platform::ObjectRef(Source::getSourceInstance()); }});
}

template <class Provider, class... Protocols>
void registerProvider() {
  platform::ClassRegistry::shared().registerClass(
      {std::string(Provider::kClassName),
       "SkeldaDataProvider",
       {std::string(Protocols::kProtocolName)...},
       [] { return platform::ObjectRef(Provider::getInstance()); }});
}

void registerAll() {
  auto& registry = platform::ClassRegistry::shared();
  registry.registerClass({"SkeldaActor", {}, {}, nullptr});
  registry.registerClass({"SkeldaActorStreamComponentBase",
                          "SkeldaActor",
                          {std::string(ISkeldaStreamComponent::kProtocolName)},
                          nullptr});
  registry.registerClass({"SkeldaDataProvider",
                          "SkeldaActor",
                          {std::string(ISkeldaDataProvider::kProtocolName)},
                          nullptr});

  using Observer = ISkeldaDataProviderObserver;
  registerSource<SkeldaEventFrameSource, ISkeldaEventFrameSource>();
  registerSource<SkeldaSessionInitInfoSource, ISkeldaSessionInitInfoSource, Observer>();
  registerSource<SkeldaStreamFlushSource, ISkeldaStreamFlushSource>();
  registerSource<SkeldaReportedIdentifiersSource, ISkeldaReportedIdentifiersSource,
                 ISkeldaWatchConnectivityReceiver>();
  registerSource<SkeldaAppInfoSource, ISkeldaAppInfoSource>();
  registerSource<SkeldaAppStateSource, ISkeldaAppStateSource, Observer>();
  registerSource<SkeldaDevicePropertiesSource, ISkeldaDevicePropertiesSource>();
  registerSource<SkeldaUserDemographicsSource, ISkeldaUserDemographicsSource>();
  registerSource<SkeldaLocaleInfoSource, ISkeldaLocaleInfoSource>();
  registerSource<SkeldaTimeZoneInfoSource, ISkeldaTimeZoneInfoSource>();
  registerSource<SkeldaAppOrientationSource, ISkeldaAppOrientationSource>();
  registerSource<SkeldaNetworkStatusSource, ISkeldaNetworkStatusSource, Observer>();
  registerSource<SkeldaSessionDevicePropertiesSource, ISkeldaSessionDevicePropertiesSource,
                 Observer>();
  registerSource<SkeldaConsentSource, ISkeldaConsentSource, ISkeldaConsentObserver>();
  registerSource<SkeldaUserPropertiesSource, ISkeldaUserPropertiesSource>();
  registerSource<SkeldaCCPASource, ISkeldaCCPASource>();

  registerProvider<SkeldaAppStateDataProvider>();
  registerProvider<SkeldaSessionInfoDataProvider>();
  registerProvider<SkeldaSessionDevicePropertiesDataProvider, Observer>();
  registerProvider<SkeldaNetworkReachabilityDataProvider>();
}

}  // namespace

void skelda::registerModules() {
  static constinit platform::Once once;
  once([] { registerAll(); });
}
