#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamReportedIdentifers.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaReportedIdentifiersSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"
#include "Analytics/Watch/Connectivity/ISkeldaWatchConnectivityReceiver.h"
#include "Platform/Base/RetryDelay.h"
#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Value.h"

class SkeldaKeychainWrapper;

/// Reports the identifiers under which the watch's data is counted. A watch has none that can be
/// tied to its phone, so it takes the phone's: they come over watch connectivity once, are kept in
/// the keychain, acknowledged, and reported at every start from then on. A start with one of them
/// missing reports the other and listens for the rest; a keychain that cannot be read just now is
/// asked again. Until they have come no watch session is flushed.
class SkeldaReportedIdentifiersSource
    : public SkeldaSource<SkeldaReportedIdentifiersSource, ISkeldaReportedIdentifiersSource>,
      public ISkeldaWatchConnectivityReceiver {
 public:
  static constexpr std::string_view kClassName = "SkeldaReportedIdentifiersSource";
  static constexpr std::string_view kWatchVendorIDItem = "SkeldaWatchSessionVendorIDKey";
  static constexpr std::string_view kWatchInstallationIDItem = "SkeldaWatchSessionInstallIDKey";
  static constexpr std::string_view kInstallationIDItem = "SkeldaSessionInstallIDKey";

  /// Whether the dictionary holds an identifier. It is taken in on the source's queue: kept,
  /// reported, acknowledged. Any thread, returns at once.
  bool didReceiveUserInfo(const platform::Dictionary& userInfo) override;
  /// Whether the dictionary is the acknowledgement.
  bool isSkeldaUserInfo(const platform::Dictionary& userInfo) override;

  // Read from the keychain. Any thread.
  /// This device's own installation identifier, made on first use; empty while the keychain cannot
  /// be read.
  static std::string installationIDForSessionReport();
  /// The phone's identifiers, where they have come.
  static std::optional<std::string> watchInstallationIDForSessionReport();
  static std::optional<std::string> watchVendorIDForSessionReport();

  // -- Fixed by the system, and not called by the agent itself

  static std::optional<platform::Data> installationIDAsBytes();
  std::string skeldaGuid() { return installationIDForSessionReport(); }
  /// Reports this device's own identifiers; what is not known yet is asked for again, three times
  /// at most, every ten seconds. Any thread, returns at once.
  void queryAndSendIDs();

 protected:
  SkeldaReportedIdentifiersSource() = default;
  /// How long an identifier that is not known yet is left alone.
  std::chrono::nanoseconds pollInterval_ = std::chrono::seconds(10);

 private:
  friend SkeldaSource;
  using Identifier = SkeldaStreamReportedIdentifer;

  static std::shared_ptr<SkeldaKeychainWrapper> keychain();
  /// The identifier as it is reported; nothing for text that is not hexadecimal.
  static std::optional<Identifier> installationIdentifier(const std::string& hexadecimal);

  void onqueue_startup() override;
  bool onqueue_loadWatchIDsFromDisk();
  platform::Dictionary onqueue_collectIdentifiers(const platform::Dictionary& userInfo);
  void onqueue_receiveUserInfo(const platform::Dictionary& userInfo);
  void onqueue_sendReportedIDs();
  void onqueue_queryAndSendIDs();
  template <auto Tick>
  void onqueue_poll();
  // Whether to ask again.
  bool onqueue_queryIDFAWithTimer();
  bool onqueue_queryIDFVWithTimer();
  bool onqueue_answerTick(std::uint32_t type, std::optional<std::string> value,
                          std::atomic<int>& attempts);

  std::optional<platform::Dictionary> watchIDsDictWatchOS_;
  SkeldaStreamReportedIdentifers::Set reportedIDsSet_;
  platform::RetryDelay keychainDelay_{std::chrono::seconds(1), std::chrono::minutes(1)};
  // Of the process, whichever source asks.
  static inline constinit std::atomic<int> skeldaIdAttempts_{0};
  static inline constinit std::atomic<int> vendorIdAttempts_{0};
};
