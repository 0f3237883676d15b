#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEvent.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <utility>

#include "Analytics/Utils/SkeldaDateUtil.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

constexpr std::string_view kPushReceived = "Skelda.PushReceived";
constexpr std::string_view kPushOpened = "Skelda.PushOpened";
constexpr std::string_view kPushCanceled = "Skelda.PushCanceled";
constexpr std::string_view kLimitExceededKey = "sk.parameter.limit.exceeded";
constexpr std::string_view kCounterpartMethod =
    "-[SkeldaStreamEvent counterpartEndTimedEventWithTimestamp:]";

std::uint32_t nextEventId() {
  static std::atomic<std::uint32_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::string encoded(std::string_view text) {
  return platform::base64Encoded(text);
}

std::int64_t millisecondsOf(const std::optional<platform::Date>& date) {
  return date ? SkeldaDateUtil::timeIntervalSince1970InMilliseconds(*date) : 0;
}

std::int64_t millisecondsBetween(const std::optional<platform::Date>& later,
                                 const std::optional<platform::Date>& earlier) {
  if (!later || !earlier) return 0;
  return SkeldaDateUtil::timeIntervalSinceDateInMilliseconds(*later, *earlier);
}

}  // namespace

SkeldaStreamEvent::SkeldaStreamEvent(std::optional<std::string_view> eventName, Text eventType,
                                     bool timed, bool starting, const platform::Value& parameters,
                                     Transaction transaction,
                                     std::optional<platform::Date> timestamp)
    : eventId_(nextEventId()),
      eventName_(SkeldaUtil::string2Base64UTF8String(eventName)),
      eventType_(std::move(eventType)),
      timed_(timed),
      starting_(starting),
      transaction_(std::move(transaction)),
      timestamp_(timestamp),
      // The uptime at the given wall-clock time.
      uptime_(relativeTimeStamp() - epochTimeStamp() + millisecondsOf(timestamp)) {
  takeParameters(parameters);
  if (transaction_ == nullptr) return;
  for (const auto& [key, value] : transaction_->encoded2TransactionDictionary()) {
    skeldaParameters_.set(key, value);
  }
}

void SkeldaStreamEvent::takeParameters(const platform::Value& parameters) {
  const platform::Dictionary* given = parameters.dictionary();
  if (given == nullptr) return;
  if (given->size() <= kMaximumParameterCount) {
    parameters_ = SkeldaUtil::dictionary2Base64UTF8Dictionary(*given);
    return;
  }
  // All or nothing: a part of the parameters would pass for the whole.
  skeldaParameters_ = SkeldaUtil::dictionary2Base64UTF8Dictionary(
      {{std::string(kLimitExceededKey), std::to_string(given->size())}});
}

std::shared_ptr<SkeldaStreamEvent> SkeldaStreamEvent::streamEventWithEventName(
    std::optional<std::string_view> eventName, Text eventType, bool timed, bool starting,
    const platform::Value& parameters, Transaction transaction,
    std::optional<platform::Date> timestamp) {
  return platform::makeCounted<SkeldaStreamEvent>(eventName, std::move(eventType), timed, starting,
                                                  parameters, std::move(transaction), timestamp);
}

std::span<const SkeldaRecordField> SkeldaStreamEvent::recordFields() noexcept {
  using Self = SkeldaStreamEvent;
  static constexpr std::array kFields{
      SkeldaRecordField::of<&Self::eventId_>("sk.event.id").required(),
      SkeldaRecordField::of<&Self::eventName_>("sk.event.name").required(),
      SkeldaRecordField::of<&Self::timed_>("sk.event.timed").required(),
      SkeldaRecordField::of<&Self::eventType_>("sk.event.type").required(),
      SkeldaRecordField::of<&Self::starting_>("sk.timed.event.starting").required(),
      SkeldaRecordField::of<&Self::timestamp_>("sk.event.timestamp").required(),
      SkeldaRecordField::of<&Self::parameters_>("sk.event.user.parameters").required(),
      SkeldaRecordField::of<&Self::skeldaParameters_>("sk.event.skelda.parameters").required(),
      SkeldaRecordField::of<&Self::duration_>("sk.timed.event.duration").required(),
      SkeldaRecordField::of<&Self::uptime_>("sk.event.uptime").required(),
  };
  return kFields;
}

void SkeldaStreamEvent::takeOrigin(const SkeldaIntakeOrigin& origin) noexcept {
  SkeldaStreamRecord::takeOrigin(origin);
  if (origin.ticket != kSkeldaNoTicket) uptime_ = origin.uptimeMilliseconds;
}

bool SkeldaStreamEvent::isValidModel() const {
  return eventName_ && timestamp_;
}

bool SkeldaStreamEvent::didRead(const platform::Dictionary&) {
  // The parameters hold a transaction under encoded keys, so this one stays empty.
  transaction_ = SkeldaTransaction::transactionUsingDictionary(skeldaParameters_);
  return true;
}

std::size_t SkeldaStreamEvent::payloadLengthHint() const noexcept {
  // The keys and numbers of the ten members take about 320 bytes.
  std::size_t length = 384 + (eventName_ ? eventName_->size() : 0);
  for (const platform::Dictionary* dictionary : {&parameters_, &skeldaParameters_}) {
    for (const auto& [key, value] : *dictionary) {
      length += key.size() + 6 + (value.text() != nullptr ? value.text()->size() : 0);
    }
  }
  return length;
}

std::shared_ptr<SkeldaStreamEvent> SkeldaStreamEvent::counterpartEndTimedEventWithTimestamp(
    std::optional<platform::Date> timestamp) const {
  if (!SkeldaUtil::assert_(timed_, kCounterpartMethod)) {
    SKELDA_LOG(2, "{}: only timed events can have counterpart end timed event", kCounterpartMethod);
    return nullptr;
  }
  auto end = platform::makeCounted<SkeldaStreamEvent>();
  end->eventId_ = eventId_;
  end->eventName_ = eventName_;
  end->eventType_ = eventType_;
  end->parameters_ = parameters_;
  end->transaction_ = transaction_;
  end->skeldaParameters_ = skeldaParameters_;
  end->timed_ = true;
  end->starting_ = false;
  end->uptime_ = uptime_ + millisecondsBetween(timestamp, timestamp_);
  end->timestamp_ = timestamp;
  return end;
}

void SkeldaStreamEvent::populateEndEventFields(const SkeldaStreamEvent& start) {
  static platform::NeverDestroyed<std::string> uuidKey(encoded("uuid"));
  eventId_ = start.eventId_;
  duration_ = millisecondsBetween(timestamp_, start.timestamp_);

  platform::Dictionary merged = parameters_;
  for (const auto& [key, value] : start.parameters_) {
    if (key != *uuidKey && !merged.contains(key)) merged.append(key, value);
  }
  // A purchase is not counted by its parameters.
  if (merged.size() <= kMaximumParameterCount || transaction_ != nullptr) {
    parameters_ = std::move(merged);
  }
}

bool SkeldaStreamEvent::isPushNotificationEvent() const {
  constexpr std::array kNames{kPushReceived, kPushOpened, kPushCanceled};
  return eventName_ && std::ranges::any_of(kNames, [this](std::string_view name) {
           return *eventName_ == encoded(name);
         });
}

bool SkeldaStreamEvent::isPushReceived() const {
  return eventName_ == kPushReceived;
}

bool SkeldaStreamEvent::isPushOpened() const {
  return eventName_ == kPushOpened;
}
