#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaTransaction.h"

/// One logged event. Name, parameter keys and parameter values are held as base64 of their UTF-8,
/// so that a payload never carries a host's raw text. Valid with a name and a timestamp.
class SkeldaStreamEvent final : public SkeldaStreamRecordOf<SkeldaStreamEvent> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamEvent";
  using Text = std::optional<std::string>;
  using Transaction = std::shared_ptr<const SkeldaTransaction>;

  /// An event of more parameters keeps none of them, and says how many there were.
  static constexpr std::size_t kMaximumParameterCount = 10;

  /// An empty event, without an id of its own.
  SkeldaStreamEvent() = default;
  /// Takes the next id of the process. `parameters` is a dictionary or null; the transaction may be
  /// null. A parameter whose key or value is empty is left out with a log line.
  SkeldaStreamEvent(std::optional<std::string_view> eventName, Text eventType, bool timed,
                    bool starting, const platform::Value& parameters, Transaction transaction,
                    std::optional<platform::Date> timestamp);
  static std::shared_ptr<SkeldaStreamEvent> streamEventWithEventName(
      std::optional<std::string_view> eventName, Text eventType, bool timed, bool starting,
      const platform::Value& parameters, Transaction transaction,
      std::optional<platform::Date> timestamp);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  bool isValidModel() const override;
  void takeOrigin(const SkeldaIntakeOrigin& origin) noexcept override;

  /// Number of the event in this process, from 1; an end event that was completed from its start
  /// has that of its start.
  std::uint32_t eventId() const noexcept { return eventId_; }
  const Text& eventName() const noexcept { return eventName_; }
  const Text& eventType() const noexcept { return eventType_; }
  bool timed() const noexcept { return timed_; }
  bool starting() const noexcept { return starting_; }
  const platform::Dictionary& parameters() const noexcept { return parameters_; }
  const platform::Dictionary& skeldaParameters() const noexcept { return skeldaParameters_; }
  const Transaction& transaction() const noexcept { return transaction_; }
  const std::optional<platform::Date>& timestamp() const noexcept { return timestamp_; }
  /// Milliseconds; 0 but on an end event that was completed from its start.
  std::int64_t duration() const noexcept { return duration_; }
  /// Milliseconds since boot at the timestamp.
  std::int64_t uptime() const noexcept { return uptime_; }

  std::size_t payloadLengthHint() const noexcept override;

  // -- Fixed by the system, and not called by the agent itself

  /// The end of this timed event; null, after a log line, for an event that is not timed.
  std::shared_ptr<SkeldaStreamEvent> counterpartEndTimedEventWithTimestamp(
      std::optional<platform::Date> timestamp) const;
  /// Completes this end event from its start event: its id, how long it took, and the parameters
  /// that only the start had.
  void populateEndEventFields(const SkeldaStreamEvent& start);

  bool isPushNotificationEvent() const;
  /// These two compare the stored name, which is encoded, with the plain texts: they are true only
  /// for an event whose name was set to the plain text.
  bool isPushReceived() const;
  bool isPushOpened() const;

  void setEventId(std::uint32_t eventId) noexcept { eventId_ = eventId; }
  void setEventName(Text encodedName) { eventName_ = std::move(encodedName); }
  void setEventType(Text type) { eventType_ = std::move(type); }
  void setTimed(bool timed) noexcept { timed_ = timed; }
  void setStarting(bool starting) noexcept { starting_ = starting; }
  void setParameters(platform::Dictionary encoded) { parameters_ = std::move(encoded); }
  void setSkeldaParameters(platform::Dictionary encoded) { skeldaParameters_ = std::move(encoded); }
  void setTransaction(Transaction transaction) { transaction_ = std::move(transaction); }
  void setTimestamp(std::optional<platform::Date> timestamp) { timestamp_ = timestamp; }
  void setDuration(std::int64_t milliseconds) noexcept { duration_ = milliseconds; }
  void setUptime(std::int64_t milliseconds) noexcept { uptime_ = milliseconds; }

 protected:
  bool didRead(const platform::Dictionary& dictionary) override;

 private:
  void takeParameters(const platform::Value& parameters);

  std::uint32_t eventId_ = 0;
  Text eventName_;
  Text eventType_;
  bool timed_ = false;
  bool starting_ = false;
  platform::Dictionary parameters_;
  platform::Dictionary skeldaParameters_;
  Transaction transaction_;
  std::optional<platform::Date> timestamp_;
  std::int64_t duration_ = 0;
  std::int64_t uptime_ = 0;
};
