#include "Analytics/Streaming/SourceModules/Sources/SkeldaReportedIdentifiersSource.h"

#include <algorithm>
#include <array>
#include <utility>

#include "Analytics/Utils/SkeldaKeychainWrapper.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Watch/Connectivity/SkeldaWatchConnectivity.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

constexpr int kLastRepeatedAttempt = 2;
constexpr std::array kWatchItems{SkeldaReportedIdentifiersSource::kWatchVendorIDItem,
                                 SkeldaReportedIdentifiersSource::kWatchInstallationIDItem};

}  // namespace

bool SkeldaReportedIdentifiersSource::didReceiveUserInfo(const platform::Dictionary& userInfo) {
  post<&SkeldaReportedIdentifiersSource::onqueue_receiveUserInfo>(userInfo);
  return userInfo.contains(kIOSVendorIDKey) || userInfo.contains(kIOSInstallationIDKey);
}

bool SkeldaReportedIdentifiersSource::isSkeldaUserInfo(const platform::Dictionary& userInfo) {
  return userInfo.contains(kWatchOSResponseKey);
}

std::shared_ptr<SkeldaKeychainWrapper> SkeldaReportedIdentifiersSource::keychain() {
  return SkeldaKeychainWrapper::keychainWrapperWithIdentifier(kSkeldaKeychainIdentifier);
}

std::string SkeldaReportedIdentifiersSource::installationIDForSessionReport() {
  const auto items = keychain();
  if (auto kept = items->stringForKey(kInstallationIDItem)) return *kept;
  if (!items->isAbsent(kInstallationIDItem)) return {};
  auto fresh = SkeldaUtil::generateCFUUID();
  if (!items->setThisDeviceString(fresh, kInstallationIDItem)) {
    SKELDA_LOG(1, "{}: the installation identifier cannot be kept",
               "+[SkeldaReportedIdentifiersSource installationIDForSessionReport]");
  }
  return fresh;
}

std::optional<platform::Data> SkeldaReportedIdentifiersSource::installationIDAsBytes() {
  return SkeldaUtil::dataFromHexString(installationIDForSessionReport());
}

std::optional<std::string> SkeldaReportedIdentifiersSource::watchInstallationIDForSessionReport() {
  return keychain()->stringForKey(kWatchInstallationIDItem);
}

std::optional<std::string> SkeldaReportedIdentifiersSource::watchVendorIDForSessionReport() {
  return keychain()->stringForKey(kWatchVendorIDItem);
}

std::optional<SkeldaReportedIdentifiersSource::Identifier>
SkeldaReportedIdentifiersSource::installationIdentifier(const std::string& hexadecimal) {
  const auto bytes = SkeldaUtil::dataFromHexString(hexadecimal);
  if (!bytes || bytes->empty()) return std::nullopt;
  return Identifier::reportedIdentiferWithType(Identifier::kInstallationId,
                                               platform::base64Encoded(bytes->view()));
}

void SkeldaReportedIdentifiersSource::onqueue_startup() {
  SKELDA_ON_QUEUE();
  const std::size_t known = reportedIDsSet_.size();
  if (onqueue_loadWatchIDsFromDisk()) onqueue_collectIdentifiers(*watchIDsDictWatchOS_);
  if (reportedIDsSet_.size() > known) onqueue_sendReportedIDs();
  if (reportedIDsSet_.size() == kWatchItems.size()) return;
  if (!keychainDelay_.isRunning()) {
    // Nobody else connects the phone, and only the phone can say who we are.
    const auto connectivity = SkeldaWatchConnectivity::defaultConnectivty();
    connectivity->setDelegate(selfOf(this));
    connectivity->setup();
  }
  const auto items = keychain();
  const auto isOutOfReach = [&](auto key) {
    return !items->stringForKey(key) && !items->isAbsent(key);
  };
  if (std::ranges::any_of(kWatchItems, isOutOfReach)) {
    watchIDsDictWatchOS_.reset();
    asyncBlock([self = selfOf(this)] { self->onqueue_startup(); },
               std::int64_t{keychainDelay_.next().count()});
  }
}

bool SkeldaReportedIdentifiersSource::onqueue_loadWatchIDsFromDisk() {
  SKELDA_ON_QUEUE();
  if (watchIDsDictWatchOS_) return true;
  const auto vendorId = watchVendorIDForSessionReport();
  const auto installationId = watchInstallationIDForSessionReport();
  if (!vendorId && !installationId) return false;
  watchIDsDictWatchOS_.emplace();
  if (vendorId) watchIDsDictWatchOS_->set(std::string(kIOSVendorIDKey), *vendorId);
  if (installationId) {
    watchIDsDictWatchOS_->set(std::string(kIOSInstallationIDKey), *installationId);
  }
  return true;
}

/// Fills reportedIDsSet_ from the identifiers in `userInfo` and answers what is to be kept of them,
/// by keychain item. What makes no identifier is neither kept nor reported.
platform::Dictionary SkeldaReportedIdentifiersSource::onqueue_collectIdentifiers(
    const platform::Dictionary& userInfo) {
  SKELDA_ON_QUEUE();
  reportedIDsSet_.clear();
  platform::Dictionary items;
  for (const auto& [key, value] : userInfo) {
    const bool isVendorId = key == kIOSVendorIDKey;
    if (!isVendorId && key != kIOSInstallationIDKey) continue;
    const auto* text = value.text();
    std::optional<Identifier> identifier;
    if (text != nullptr && !text->empty() && platform::isValidUTF8(*text)) {
      identifier = isVendorId ? Identifier::reportedIdentiferWithType(Identifier::kVendorId, *text)
                              : installationIdentifier(*text);
    }
    if (!identifier) {
      SKELDA_LOG(1, "{}: no identifier under {}", "-[SkeldaReportedIdentifiersSource collect]",
                 key);
      continue;
    }
    items.set(std::string(isVendorId ? kWatchVendorIDItem : kWatchInstallationIDItem), *text);
    reportedIDsSet_.insert(*std::move(identifier));
  }
  return items;
}

void SkeldaReportedIdentifiersSource::onqueue_receiveUserInfo(
    const platform::Dictionary& userInfo) {
  SKELDA_ON_QUEUE();
  const platform::Dictionary items = onqueue_collectIdentifiers(userInfo);
  if (reportedIDsSet_.empty()) return;
  // Kept or not, they are reported now. In one write, so that no kill leaves one of two.
  if (!keychain()->setStrings(items)) {
    SKELDA_LOG(1, "{}: the phone's identifiers cannot be kept, the next start asks for them again",
               "-[SkeldaReportedIdentifiersSource onqueue_receiveUserInfo:]");
  }
  onqueue_sendReportedIDs();
  const auto connectivity = SkeldaWatchConnectivity::defaultConnectivty();
  connectivity->transferUserInfo({{std::string(kWatchOSResponseKey), "YES"}});
  connectivity->disableWatchConnectivity();
}

void SkeldaReportedIdentifiersSource::onqueue_sendReportedIDs() {
  SKELDA_ON_QUEUE();
  onqueue_streamMessage(SkeldaStreamReportedIdentifers::reportedIdentifiersWithSet(
      reportedIDsSet_, SkeldaUtil::isAdTrackingEnabled()));
}

void SkeldaReportedIdentifiersSource::queryAndSendIDs() {
  post<&SkeldaReportedIdentifiersSource::onqueue_queryAndSendIDs>();
}

void SkeldaReportedIdentifiersSource::onqueue_queryAndSendIDs() {
  SKELDA_ON_QUEUE();
  reportedIDsSet_.clear();
  if (auto skeldaId = SkeldaUtil::getSkeldaId()) {
    reportedIDsSet_.emplace(Identifier::kAdvertisingId, std::move(skeldaId));
  } else {
    skeldaIdAttempts_ = 0;
    onqueue_poll<&SkeldaReportedIdentifiersSource::onqueue_queryIDFAWithTimer>();
  }
  if (auto vendorId = SkeldaUtil::getIdentifierForVendor()) {
    reportedIDsSet_.emplace(Identifier::kVendorId, std::move(vendorId));
  } else {
    vendorIdAttempts_ = 0;
    onqueue_poll<&SkeldaReportedIdentifiersSource::onqueue_queryIDFVWithTimer>();
  }
  if (auto own = installationIdentifier(installationIDForSessionReport())) {
    reportedIDsSet_.insert(*std::move(own));
  }
  onqueue_sendReportedIDs();
}

/// Asks after a while, and again until the tick answers false.
template <auto Tick>
void SkeldaReportedIdentifiersSource::onqueue_poll() {
  SKELDA_ON_QUEUE();
  asyncBlock(
      [self = selfOf(this)] {
        if (((*self).*Tick)()) self->onqueue_poll<Tick>();
      },
      std::int64_t{pollInterval_.count()});
}

bool SkeldaReportedIdentifiersSource::onqueue_queryIDFAWithTimer() {
  return onqueue_answerTick(Identifier::kAdvertisingId, SkeldaUtil::getSkeldaId(),
                            skeldaIdAttempts_);
}

bool SkeldaReportedIdentifiersSource::onqueue_queryIDFVWithTimer() {
  return onqueue_answerTick(Identifier::kVendorId, SkeldaUtil::getIdentifierForVendor(),
                            vendorIdAttempts_);
}

bool SkeldaReportedIdentifiersSource::onqueue_answerTick(std::uint32_t type,
                                                         std::optional<std::string> value,
                                                         std::atomic<int>& attempts) {
  SKELDA_ON_QUEUE();
  const bool known = value.has_value();
  if (known) {
    onqueue_streamMessage(SkeldaStreamReportedIdentifers::reportedIdentifiersWithSet(
        {Identifier::reportedIdentiferWithType(type, std::move(value))},
        SkeldaUtil::isAdTrackingEnabled()));
  }
  return ++attempts <= kLastRepeatedAttempt && !known;
}
