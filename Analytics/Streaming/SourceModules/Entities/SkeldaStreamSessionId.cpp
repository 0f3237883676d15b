#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionId.h"

#include <array>
#include <utility>

#include "Platform/Base/Counted.h"

namespace {

constexpr std::string_view kElapsedStartTimeKey = "sk.session.elapsed.start.time";

}  // namespace

SkeldaStreamSessionId::SkeldaStreamSessionId(std::optional<platform::Date> startupTime,
                                             std::int64_t elapsedStartTime,
                                             std::int32_t sessionState)
    : startupTime_(startupTime), appState_(sessionState), elapsedStartTime_(elapsedStartTime) {}

std::shared_ptr<SkeldaStreamSessionId> SkeldaStreamSessionId::sessionIdWithStartupTime(
    std::optional<platform::Date> startupTime, std::int64_t elapsedStartTime,
    std::int32_t sessionState) {
  return platform::makeCounted<SkeldaStreamSessionId>(startupTime, elapsedStartTime, sessionState);
}

std::span<const SkeldaRecordField> SkeldaStreamSessionId::recordFields() noexcept {
  using Self = SkeldaStreamSessionId;
  static constexpr std::array kFields{
      SkeldaRecordField::of<&Self::startupTime_>("sk.session.id").required(),
      SkeldaRecordField::of<&Self::appState_>("sk.session.id.current.state"),
      SkeldaRecordField::of<&Self::elapsedStartTime_>(kElapsedStartTimeKey),
      SkeldaRecordField::of<&Self::elapsedEndTime_>("sk.session.elapsed.end.time"),
  };
  return kFields;
}

bool SkeldaStreamSessionId::didRead(const platform::Dictionary& dictionary) {
  // The start is read as a floating-point number: past 2^53 milliseconds it is the nearest double.
  if (const platform::Value* start = dictionary.find(kElapsedStartTimeKey)) {
    elapsedStartTime_ = platform::Value(start->doubleValue()).integerValue();
  }
  return true;
}

platform::KeyedArchive SkeldaStreamSessionId::archive() const {
  platform::Dictionary content;
  if (startupTime_) content.append("startupTime", *startupTime_);
  content.append("appState", appState_);
  content.append("elapsedStartTime", elapsedStartTime_);
  content.append("elapsedEndTime", elapsedEndTime_);
  return {std::string(kClassName), std::move(content)};
}

std::shared_ptr<SkeldaStreamSessionId> SkeldaStreamSessionId::fromArchive(
    const platform::KeyedArchive& archive) {
  const platform::Dictionary* content = archive.root.dictionary();
  if (archive.className != kClassName || content == nullptr) return nullptr;
  const platform::Value* startupTime = content->find("startupTime");
  const platform::Value* appState = content->find("appState");
  const platform::Value* start = content->find("elapsedStartTime");
  const platform::Value* end = content->find("elapsedEndTime");
  if (startupTime == nullptr || startupTime->date() == nullptr) return nullptr;
  for (const platform::Value* number : {appState, start, end}) {
    if (number == nullptr || !number->isNumber()) return nullptr;
  }
  auto sessionId = sessionIdWithStartupTime(*startupTime->date(), start->integerValue(),
                                            static_cast<std::int32_t>(appState->integerValue()));
  sessionId->elapsedEndTime_ = end->integerValue();
  return sessionId;
}
