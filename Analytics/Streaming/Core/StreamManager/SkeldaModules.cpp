#include "Analytics/Streaming/Core/StreamManager/SkeldaModules.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>
#include <type_traits>

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

/// What is started by the manager: the source, or the provider whose news it reports.
enum class Start : std::uint8_t { neither, source, provider };

/// What a module may be besides what its row says.
template <class... Protocols>
struct ProtocolList {
  static constexpr std::array kNames{Protocols::kProtocolName...};
  template <class Module>
  static constexpr std::array<bool, sizeof...(Protocols)> kOf{
      std::is_base_of_v<Protocols, Module>...};
};
using MoreProtocols = ProtocolList<ISkeldaFrameSource, ISkeldaDataProviderObserver,
                                   ISkeldaConsentObserver, ISkeldaWatchConnectivityReceiver>;

/// What the class registry is told of a module.
struct Class {
  std::string_view name;
  platform::ObjectRef (*make)();
  std::array<bool, MoreProtocols::kNames.size()> conforms;
};

struct Source {
  Class its;
  std::string_view key;
  std::string_view provider;  ///< empty for a source that observes none
  Start start;
};

template <class Module>
constexpr Source source(Start start = Start::neither) {
  return {{Module::kClassName, []() -> platform::ObjectRef { return Module::getSourceInstance(); },
           MoreProtocols::kOf<Module>},
          Module::kKey,
          Module::kProvider,
          start};
}

template <class Module>
constexpr Class provider() {
  return {Module::kClassName, []() -> platform::ObjectRef { return Module::getInstance(); },
          MoreProtocols::kOf<Module>};
}

/// One row for each source, in the order in which they are chained, and started.
constexpr std::array kSources{
    source<SkeldaEventFrameSource>(),
    source<SkeldaSessionInitInfoSource>(),
    source<SkeldaStreamFlushSource>(),
    source<SkeldaReportedIdentifiersSource>(Start::source),
    source<SkeldaAppInfoSource>(Start::source),
    source<SkeldaAppStateSource>(Start::provider),
    source<SkeldaDevicePropertiesSource>(Start::source),
    source<SkeldaUserDemographicsSource>(),
    source<SkeldaLocaleInfoSource>(Start::source),
    source<SkeldaTimeZoneInfoSource>(Start::source),
    source<SkeldaAppOrientationSource>(Start::source),
    source<SkeldaNetworkStatusSource>(Start::provider),
    source<SkeldaSessionDevicePropertiesSource>(Start::provider),
    source<SkeldaConsentSource>(),
    source<SkeldaUserPropertiesSource>(),
    source<SkeldaCCPASource>(),
};

/// One row for each provider, in the order in which they are given their observers.
constexpr std::array kProviders{
    provider<SkeldaAppStateDataProvider>(),
    provider<SkeldaSessionInfoDataProvider>(),
    provider<SkeldaSessionDevicePropertiesDataProvider>(),
    provider<SkeldaNetworkReachabilityDataProvider>(),
};

static_assert(std::ranges::all_of(kSources, [](const Source& source) {
  return source.provider.empty()
             ? source.start != Start::provider
             : std::ranges::count(kProviders, source.provider, &Class::name) == 1;
}));

/// `key` is a protocol as well, where there is one.
void registerClass(const Class& its, std::string_view superclass, std::string_view key = {}) {
  std::vector<std::string> protocols;
  for (std::size_t i = 0; i < its.conforms.size(); ++i) {
    if (its.conforms[i]) protocols.emplace_back(MoreProtocols::kNames[i]);
  }
  if (!key.empty()) protocols.emplace_back(key);
  platform::ClassRegistry::shared().registerClass(
      {std::string(its.name), std::string(superclass), std::move(protocols), its.make});
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
  for (const Source& row : kSources) {
    registerClass(row.its, "SkeldaActorStreamComponentBase", row.key);
  }
  for (const Class& row : kProviders) registerClass(row, "SkeldaDataProvider");
}

}  // namespace

void skelda::registerModules() {
  static constinit platform::Once once;
  once([] { registerAll(); });
}

std::vector<std::vector<std::string>> skelda::sourceChain() {
  std::vector<std::vector<std::string>> chain;
  for (const Source& row : kSources) {
    chain.push_back({std::string(row.its.name), std::string(row.key)});
  }
  return chain;
}

std::vector<std::vector<std::string>> skelda::providerChain() {
  std::vector<std::vector<std::string>> chain;
  for (const Class& provider : kProviders) {
    for (const Source& row : kSources) {
      if (row.provider != provider.name) continue;
      chain.push_back({std::string(row.provider), std::string(row.key)});
    }
  }
  return chain;
}

std::vector<std::string> skelda::startOrder() {
  std::vector<std::string> keys;
  for (const Source& row : kSources) {
    if (row.start != Start::neither) {
      keys.emplace_back(row.start == Start::source ? row.key : row.provider);
    }
  }
  return keys;
}
