#include "Analytics/Streaming/SourceModules/Sources/SkeldaReportedIdentifiersSource.h"

#include <chrono>
#include <utility>

#include "Analytics/Utils/SkeldaKeychainWrapper.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Watch/Connectivity/SkeldaWatchConnectivity.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

constexpr std::chrono::seconds kPollInterval{10};
constexpr int kLastRepeatedAttempt = 2;

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
  items->setThisDeviceString(fresh, kInstallationIDItem);
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
  if (onqueue_loadWatchIDsFromDisk() && !watchIDsDictWatchOS_->empty()) {
    onqueue_collectIdentifiers(*watchIDsDictWatchOS_);
    onqueue_sendReportedIDs();
    return;
  }
  // Nobody else connects the phone, and only the phone can say who we are.
  const auto connectivity = SkeldaWatchConnectivity::defaultConnectivty();
  connectivity->setDelegate(selfOf(this));
  connectivity->setup();
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
  // Kept or not, they are reported now; the phone sends them again where they were not kept.
  for (const auto& [item, text] : onqueue_collectIdentifiers(userInfo)) {
    keychain()->setString(*text.text(), item);
  }
  if (reportedIDsSet_.empty()) return;
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
    skeldaIdTimer_ = onqueue_polling(&SkeldaReportedIdentifiersSource::onqueue_queryIDFAWithTimer);
  }
  if (auto vendorId = SkeldaUtil::getIdentifierForVendor()) {
    reportedIDsSet_.emplace(Identifier::kVendorId, std::move(vendorId));
  } else {
    vendorIdAttempts_ = 0;
    vendorIdTimer_ = onqueue_polling(&SkeldaReportedIdentifiersSource::onqueue_queryIDFVWithTimer);
  }
  if (auto own = installationIdentifier(installationIDForSessionReport())) {
    reportedIDsSet_.insert(*std::move(own));
  }
  onqueue_sendReportedIDs();
}

std::shared_ptr<platform::Timer> SkeldaReportedIdentifiersSource::onqueue_polling(
    void (SkeldaReportedIdentifiersSource::*tick)(platform::Timer&)) {
  SKELDA_ON_QUEUE();
  std::weak_ptr weakSelf = selfOf(this);
  return platform::Timer::scheduled(kPollInterval, /*repeats=*/true, queue(),
                                    [weakSelf, tick](platform::Timer& timer) {
                                      const auto self = weakSelf.lock();
                                      if (!self) return timer.invalidate();
                                      // On the source's queue already: inside it this runs inline.
                                      self->syncBlock([&] { ((*self).*tick)(timer); });
                                    });
}

void SkeldaReportedIdentifiersSource::onqueue_queryIDFAWithTimer(platform::Timer& timer) {
  SKELDA_ON_QUEUE();
  onqueue_answerTick(timer, Identifier::kAdvertisingId, SkeldaUtil::getSkeldaId(),
                     skeldaIdAttempts_);
}

void SkeldaReportedIdentifiersSource::onqueue_queryIDFVWithTimer(platform::Timer& timer) {
  SKELDA_ON_QUEUE();
  onqueue_answerTick(timer, Identifier::kVendorId, SkeldaUtil::getIdentifierForVendor(),
                     vendorIdAttempts_);
}

void SkeldaReportedIdentifiersSource::onqueue_answerTick(platform::Timer& timer, std::uint32_t type,
                                                         std::optional<std::string> value,
                                                         std::atomic<int>& attempts) {
  SKELDA_ON_QUEUE();
  const bool known = value.has_value();
  if (known) {
    onqueue_streamMessage(SkeldaStreamReportedIdentifers::reportedIdentifiersWithSet(
        {Identifier::reportedIdentiferWithType(type, std::move(value))},
        SkeldaUtil::isAdTrackingEnabled()));
  }
  if (++attempts > kLastRepeatedAttempt || known) timer.invalidate();
}
