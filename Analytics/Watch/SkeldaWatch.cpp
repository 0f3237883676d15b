#include "Skelda_Watch/SkeldaWatch.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <utility>

#include "Analytics/Networking/DataSender/SkeldaDataSender.h"
#include "Analytics/Status/SkeldaSight.h"
#include "Analytics/Streaming/Core/StreamManager/SkeldaWatchStreamManager.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoDataProvider.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaAppInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaUserDemographicsSource.h"
#include "Analytics/Utils/SkeldaHostSettings.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Watch/Connectivity/SkeldaWatchConnectivity.h"
#include "Analytics/Watch/SkeldaPublicEntry.h"
#include "Platform/Dispatch/Once.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

constexpr unsigned kDebugLogLevel = 2;

constinit platform::Once startOnce;
/// Whether the agent runs; false for good where it could not be built.
constinit std::atomic<bool> running{false};

/// Read once for the process; empty where there is none.
const std::optional<std::string>& keptAPIKey() {
  static const auto& key = *new std::optional<std::string>([]() -> std::optional<std::string> {
    if (auto text = SkeldaHostSettings::apiKey()) return text;
    const auto bundle = platform::Bundle::main();
    const auto name = SkeldaHostSettings::kAPIKey.key;
    SKELDA_LOG(1, "API Key not provided in plist with key {}, unable to create watch session",
               name);
    const auto like = SkeldaBundleCheck::keyLike(name, bundle->infoDictionary());
    SKELDA_NOTICE("Skelda: no \"{}\" in the Info.plist of {}: events are refused. {}", name,
                  bundle->bundlePath(),
                  like.empty()
                      ? "It is a text, the key of the account that they belong to"
                      : fmt::format("\"{}\" stands there, and is none that the agent knows", like));
    return std::nullopt;
  }());
  return key;
}

/// Builds and starts the agent, once per process. The order is part of the contract: the manager's
/// own log level comes after, and so replaces, the one that the debug switch sets.
void startAgent() {
  SkeldaWatch::loadWatchDebug();
  SkeldaWatch::loadWatchDisableWatchConnectivity();
  const auto manager = SkeldaWatchStreamManager::manager();
  if (manager == nullptr) return;
  // All look-ups before the start: they wait for the manager's queue, which then is busy starting.
  const auto user = manager->module<ISkeldaUserDemographicsSource>();
  const auto appInfo = manager->module<ISkeldaAppInfoSource>();
  const auto sessionInfo = manager->module<SkeldaSessionInfoDataProvider>();
  SkeldaIntakePump::Sources sources{manager->module<ISkeldaEventFrameSource>(),
                                    manager->module<ISkeldaUserPropertiesSource>(),
                                    manager->module<ISkeldaCCPASource>(), user,
                                    // A session is whole from its first event on where what the
                                    // agent observes by itself comes before it.
                                    [manager] { manager->waitUntilStarted(); }};

  if (user) user->setUserId(SkeldaWatch::loadWatchUserID());
  if (appInfo) appInfo->setAppVersion(SkeldaWatch::loadAppVersionOverride());
  manager->startup();
  if (sessionInfo) sessionInfo->startUpWithApiKey(*keptAPIKey());
  SkeldaIntake::start(std::move(sources));
  running.store(true, std::memory_order_release);
}

/// Starts the agent where it does not run yet. False where it could not be started, which counts as
/// done and was said in the log.
bool isStarted() {
  startOnce([] {
    try {
      startAgent();
    } catch (...) {
      SKELDA_NOTICE("Skelda: the agent could not be started, events are not logged");
      SkeldaUtil::handleException(std::current_exception());
    }
  });
  return running.load(std::memory_order_acquire);
}

bool isEventName(const SkeldaValue& name) {
  if (name.text() != nullptr && !name.text()->empty()) return true;
  if (name.text() == nullptr && !name.isNull()) {
    SKELDA_LOG(2, "Skelda: Event not logged -- eventName must be of NSString type.");
  } else {
    SKELDA_LOG(2, "Skelda: Event not logged -- eventName may not be empty.");
  }
  return false;
}

/// Whether an event of that name may be kept: the agent runs, or is started here. What must hold
/// for that holds for good, so a running agent is not asked again.
bool mayKeepEvent(const SkeldaValue& name) {
  const bool runs = running.load(std::memory_order_acquire);
  if (!runs && !skelda::mayKeep("event")) return false;
  if (!isEventName(name)) {
    SkeldaAccounting::refused(SkeldaRefusal::badName);
    return false;
  }
  if (runs || !SkeldaIntake::open()) return runs;
  if (isStarted()) return true;
  SkeldaAccounting::refused(SkeldaRefusal::otherProcess);
  return false;
}

template <class... More>
unsigned keepEvent(SkeldaIntakeCall::Kind kind, SkeldaValue& name, More&... more) noexcept {
  const bool kept = skelda::effectiveEntry(false, [&] {
    return mayKeepEvent(name) && SkeldaIntake::accept(kind, {std::cref(name), std::cref(more)...});
  });
  return kept ? 1 : 0;
}

bool isMarkerKey(std::string_view text) {
  return text == kIOSVendorIDKey || text == kIOSInstallationIDKey || text == kWatchOSResponseKey;
}

}  // namespace

unsigned SkeldaWatch::logWatchEvent(SkeldaValue name, SkeldaValue parameters) noexcept {
  return keepEvent(SkeldaIntakeCall::Kind::event, name, parameters);
}

unsigned SkeldaWatch::startTimedEvent(SkeldaValue name, SkeldaValue parameters) noexcept {
  return keepEvent(SkeldaIntakeCall::Kind::startTimedEvent, name, parameters);
}

unsigned SkeldaWatch::endTimedEvent(SkeldaValue name, SkeldaValue parameters) noexcept {
  return keepEvent(SkeldaIntakeCall::Kind::endTimedEvent, name, parameters);
}

unsigned SkeldaWatch::logPurchase(SkeldaValue name, SkeldaValue transaction,
                                  SkeldaValue parameters) noexcept {
  return keepEvent(SkeldaIntakeCall::Kind::purchase, name, parameters, transaction);
}

void SkeldaWatch::setUserID(SkeldaValue userID) noexcept {
  skelda::choice(SkeldaIntakeCall::Kind::userId, std::move(userID));
}

bool SkeldaWatch::waitUntilStored(std::chrono::nanoseconds longest) noexcept {
  using Clock = std::chrono::steady_clock;
  return skelda::publicEntry(false, [&] {
    const auto now = Clock::now();
    const bool isForEver = longest > Clock::time_point::max() - now;
    return SkeldaIntake::waitUntilStored(isForEver ? Clock::time_point::max() : now + longest);
  });
}

SkeldaAccount SkeldaWatch::account() noexcept {
  return skelda::publicEntry(SkeldaAccount(), [] { return SkeldaIntake::account(); });
}

SkeldaStatus SkeldaWatch::status() noexcept {
  return skelda::publicEntry(SkeldaStatus(), [] {
    auto sight = SkeldaSight::ofFiles();
    sight.isOwn = true;
    sight.couldNotStart = startOnce.isDone() && !running.load(std::memory_order_acquire);
    sight.lastFailure = SkeldaDataSender::lastFailure();
    // What this process counted before it had a file, and what it sends to, no file tells.
    if (SkeldaIntake::isOpen() || !sight.hasAccount) {
      sight.account = SkeldaIntake::account();
    } else {
      sight.account.refused = SkeldaIntake::account().refused;
    }
    sight.server = SkeldaNetworkURLsDataProvider::sharedInstance()->serverURL();
    if (sight.server == SkeldaNetworkURLsDataProvider::kDefaultServerURL) sight.server.clear();
    return sight.status();
  });
}

std::optional<std::string> SkeldaWatch::apiKey() noexcept {
  return skelda::publicEntry(std::optional<std::string>(), [] { return keptAPIKey(); });
}

bool SkeldaWatch::checkIsSkeldaUserInfo(const SkeldaValue& collection) noexcept {
  return skelda::publicEntry(false, [&] {
    if (const auto* array = collection.array()) {
      return std::any_of(array->begin(), array->end(), [](const auto& element) {
        return element.text() != nullptr && isMarkerKey(*element.text());
      });
    }
    if (const auto* dictionary = collection.dictionary()) {
      return std::any_of(dictionary->begin(), dictionary->end(),
                         [](const auto& entry) { return isMarkerKey(entry.first); });
    }
    return false;
  });
}

bool SkeldaWatch::isSkeldaUserInfo(const SkeldaValue& collection) noexcept {
  return checkIsSkeldaUserInfo(collection);
}

bool SkeldaWatch::skeldaUserInfo(const SkeldaValue& collection) noexcept {
  return checkIsSkeldaUserInfo(collection);
}

void SkeldaWatch::setServerURL(SkeldaValue url) noexcept {
  skelda::publicEntry([&] {
    auto* text = url.text();
    if (text == nullptr || !platform::isValidUTF8(*text)) {
      SKELDA_LOG(0, "Skelda: Server URL not set -- it must be UTF-8 text.");
      return;
    }
    SkeldaAccounting::noteServer(*text);
    SkeldaNetworkURLsDataProvider::sharedInstance()->setServerURL(std::move(*text));
  });
}

void SkeldaWatch::loadWatchDebug() noexcept {
  skelda::publicEntry([] {
    if (!SkeldaHostSettings::isSwitchedOn(SkeldaHostSettings::kDebug)) return;
    SkeldaUtil::setLogLevel(kDebugLogLevel);
    platform::Log::showDetails();
  });
}

void SkeldaWatch::loadWatchDisableWatchConnectivity() noexcept {
  skelda::publicEntry([] {
    if (SkeldaHostSettings::isSwitchedOn(SkeldaHostSettings::kDisableConnectivity)) {
      SkeldaWatchConnectivity::defaultConnectivty()->disableWatchConnectivity();
    }
  });
}

SkeldaValue SkeldaWatch::loadWatchUserID() noexcept {
  return skelda::publicEntry(
      SkeldaValue(), [] { return SkeldaHostSettings::valueOf(SkeldaHostSettings::kUserID); });
}

SkeldaValue SkeldaWatch::loadAppVersionOverride() noexcept {
  return skelda::publicEntry(
      SkeldaValue(), [] { return SkeldaHostSettings::valueOf(SkeldaHostSettings::kAppVersion); });
}
