#include "Analytics/Streaming/SourceModules/Sources/SkeldaEventFrameSource.h"

#include <utility>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEvent.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaTransaction.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaHostText.h"
#include "Analytics/Utils/SkeldaLog.h"

namespace {

constexpr std::string_view kValidateMethod =
    "+[SkeldaEventFrameSource isValidInputEvent:withParameters:timed:transaction:timestamp:]";
constexpr std::string_view kRecordMethod =
    "-[SkeldaEventFrameSource "
    "onqueue_recordEvent:withParameters:timed:transaction:timestamp:]";
constexpr std::string_view kEndMethod =
    "-[SkeldaEventFrameSource onqueue_endTimedEvent:withParameters:timestamp:]";

}  // namespace

void SkeldaEventFrameSource::recordEvent(platform::Value name, platform::Value parameters,
                                         bool timed, std::shared_ptr<SkeldaTransaction> transaction,
                                         platform::Date timestamp, SkeldaIntakeOrigin origin) {
  post<&SkeldaEventFrameSource::onqueue_recordEvent>(std::move(name), std::move(parameters), timed,
                                                     std::move(transaction), timestamp, origin);
}

void SkeldaEventFrameSource::recordEvent(platform::Value name, platform::Value parameters,
                                         bool timed, platform::Date timestamp,
                                         SkeldaIntakeOrigin origin) {
  recordEvent(std::move(name), std::move(parameters), timed, nullptr, timestamp, origin);
}

void SkeldaEventFrameSource::endTimedEvent(platform::Value name, platform::Value parameters,
                                           platform::Date timestamp, SkeldaIntakeOrigin origin) {
  post<&SkeldaEventFrameSource::onqueue_endTimedEvent>(std::move(name), std::move(parameters),
                                                       timestamp, origin);
}

bool SkeldaEventFrameSource::isValidInputEvent(const platform::Value& name,
                                               const platform::Value& parameters, bool,
                                               const std::shared_ptr<SkeldaTransaction>&,
                                               platform::Date) {
  if (name.text() == nullptr || name.text()->empty()) {
    SKELDA_LOG(1, "{}: Not logging Event eventName[{}] due to invalid eventName", kValidateMethod,
               skelda::shownDescription(name));
    return false;
  }
  if (!skelda::isWellFormedText(name)) {
    SKELDA_LOG(1, "{}: Not logging Event because its eventName is not UTF-8 text", kValidateMethod);
    return false;
  }
  if (!parameters.isNull() && parameters.dictionary() == nullptr) {
    SKELDA_LOG(1,
               "{}: Not logging Event eventName[{}] because parameters input is not of "
               "NSDictionary type",
               kValidateMethod, skelda::shownDescription(name));
    return false;
  }
  if (!skelda::isWellFormedText(parameters)) {
    SKELDA_LOG(1, "{}: Not logging Event eventName[{}] because its parameters are not UTF-8 text",
               kValidateMethod, skelda::shownDescription(name));
    return false;
  }
  return true;
}

void SkeldaEventFrameSource::onqueue_recordEvent(platform::Value name, platform::Value parameters,
                                                 bool timed,
                                                 std::shared_ptr<SkeldaTransaction> transaction,
                                                 platform::Date timestamp,
                                                 SkeldaIntakeOrigin origin) {
  SKELDA_ON_QUEUE();
  if (!isValidInputEvent(name, parameters, timed, transaction, timestamp)) {
    return skelda::settleRefused(origin.ticket, name, parameters);
  }
  const auto type = transaction ? kPurchaseEvent : kCustomEvent;
  // A timed event's record is its start.
  const bool starting = timed;
  auto event =
      SkeldaStreamEvent::streamEventWithEventName(*name.text(), std::string(type), timed, starting,
                                                  parameters, std::move(transaction), timestamp);
  SKELDA_LOG(0, "{}: Recording Event eventName[{}] with parameters[{}]", kRecordMethod,
             skelda::shownValue(skelda::textOrNull(event->eventName())),
             skelda::shownDescription(platform::Value(event->parameters())));
  onqueue_send(std::move(event), origin);
}

void SkeldaEventFrameSource::onqueue_endTimedEvent(platform::Value name, platform::Value parameters,
                                                   platform::Date timestamp,
                                                   SkeldaIntakeOrigin origin) {
  SKELDA_ON_QUEUE();
  if (!isValidInputEvent(name, parameters, /*timed=*/true, nullptr, timestamp)) {
    return skelda::settleRefused(origin.ticket, name, parameters);
  }
  SKELDA_LOG(0, "{}: ending timed event eventName[{}] with parameters[{}]", kEndMethod,
             skelda::shownValue(*name.text()), skelda::shownDescription(parameters));
  // Whether an event of that name was ever started is not known here, and not asked. Its end is a
  // custom event even where its start was a purchase.
  onqueue_send(SkeldaStreamEvent::streamEventWithEventName(*name.text(), std::string(kCustomEvent),
                                                           /*timed=*/true, /*starting=*/false,
                                                           parameters, nullptr, timestamp),
               origin);
}

void SkeldaEventFrameSource::onqueue_send(std::shared_ptr<SkeldaStreamEvent> event,
                                          SkeldaIntakeOrigin origin) {
  SKELDA_ON_QUEUE();
  event->takeOrigin(origin);
  onqueue_streamMessage(std::move(event));
}
