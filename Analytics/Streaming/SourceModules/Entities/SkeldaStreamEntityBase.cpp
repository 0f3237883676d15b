#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEntityBase.h"

#include <fmt/format.h>

#include <algorithm>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameFormat.h"
#include "Analytics/Utils/SkeldaDateUtil.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Exception.h"

SkeldaStreamEntityBase::SkeldaStreamEntityBase(std::int32_t frameType)
    : frameVersion_(skelda::frameformat::kEntityVersion),
      frameType_(frameType),
      epochTimeStamp_(SkeldaDateUtil::timeIntervalSince1970InMilliseconds(platform::Date::now())),
      relativeTimeStamp_(SkeldaUtil::uptimeInMilliseconds()) {}

void SkeldaStreamEntityBase::takeOrigin(const SkeldaIntakeOrigin& origin) noexcept {
  if (origin.ticket == kSkeldaNoTicket) return;
  intakeTicket_ = origin.ticket;
  epochTimeStamp_ = origin.epochMilliseconds;
  relativeTimeStamp_ = origin.uptimeMilliseconds;
}

std::optional<platform::Data> SkeldaStreamEntityBase::payload() const {
  std::string json;
  json.reserve(payloadLengthHint());
  if (!appendPayload(json)) return std::nullopt;
  return platform::Data(std::move(json));
}

bool SkeldaStreamEntityBase::appendPayload(std::string& out) const {
  platform::JSONWriter writer(out);
  return writeJSON(writer);
}

std::optional<platform::Dictionary> SkeldaStreamEntityBase::dictionaryRepresentation() const {
  platform::abortOnFailedAssertion("0");
}

bool SkeldaStreamEntityBase::writeJSON(platform::JSONWriter& writer) const {
  std::optional<platform::Dictionary> dictionary = dictionaryRepresentation();
  if (!dictionary) return false;
  writer.value(platform::Value(std::move(*dictionary)));
  return true;
}

std::optional<std::string> SkeldaStreamEntityBase::jsonRepresentation() const {
  std::string json;
  if (!appendPayload(json)) return std::nullopt;
  return json;
}

std::optional<std::string> SkeldaStreamEntityBase::jsonRepresentationForDebug() const {
  std::string json;
  platform::JSONWriter writer(json, true);
  if (!writeJSON(writer)) return std::nullopt;
  std::replace(json.begin(), json.end(), '\n', ' ');
  return json;
}

std::string SkeldaStreamEntityBase::description() const {
  return fmt::format("<{}: {}, type = {}, json = {}>", className(), static_cast<const void*>(this),
                     frameType_, jsonRepresentationForDebug().value_or("(null)"));
}
