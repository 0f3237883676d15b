#include "Tools/Shared/PayloadText.h"

#include <fmt/format.h>

#include <chrono>
#include <iterator>
#include <utility>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Platform/Foundation/JSONReader.h"
#include "Platform/Foundation/TextCoding.h"
#include "Platform/Foundation/UTF8.h"

namespace skelda::tools {
namespace {

/// The last millisecond of the year 9999, and the first of the year 1.
constexpr std::int64_t kLastShown = 253402300799999;
constexpr std::int64_t kFirstShown = -62135596800000;

/// Of a character in well-formed UTF-8.
std::uint32_t codePoint(std::string_view character) {
  const auto lead = static_cast<std::uint8_t>(character[0]);
  if (character.size() == 1) return lead;
  std::uint32_t point = lead & (0x7FU >> character.size());
  for (const char byte : character.substr(1)) {
    point = point << 6 | (static_cast<std::uint8_t>(byte) & 0x3FU);
  }
  return point;
}

/// Whether a terminal would act on it rather than show it.
bool isHidden(std::uint32_t point) {
  return point < 0x20 || (point >= 0x7F && point < 0xA0) || point == 0x200E || point == 0x200F ||
         (point >= 0x2028 && point <= 0x202E) || (point >= 0x2066 && point <= 0x2069);
}

platform::Dictionary decodedParameters(const platform::Dictionary& parameters) {
  platform::Dictionary decoded;
  for (const auto& [key, value] : parameters) {
    std::string plainKey = decodedText(key).value_or(key);
    std::optional<std::string> plainValue = decodedTextOf(&value);
    decoded.set(std::move(plainKey), plainValue ? platform::Value(*std::move(plainValue)) : value);
  }
  return decoded;
}

}  // namespace

void appendVisible(std::string& out, std::string_view text) {
  const auto* at = reinterpret_cast<const std::uint8_t*>(text.data());
  const std::uint8_t* const end = at + text.size();
  while (at != end) {
    const platform::UTF8Step step = platform::nextUTF8(at, end);
    const std::string_view bytes(reinterpret_cast<const char*>(at), step.length);
    at += step.length;
    if (!step.valid) {
      for (const char byte : bytes) {
        fmt::format_to(std::back_inserter(out), "\\x{:02x}", static_cast<std::uint8_t>(byte));
      }
    } else if (const std::uint32_t point = codePoint(bytes); isHidden(point)) {
      fmt::format_to(std::back_inserter(out), "\\u{:04x}", point);
    } else {
      out.append(bytes);
    }
  }
}

std::optional<platform::Dictionary> parsedPayload(const FrameRecord& frame) {
  if (!frame.hasWholePayload()) return std::nullopt;
  std::optional<platform::Value> value = platform::readJSON(frame.payload);
  if (!value || value->dictionary() == nullptr) return std::nullopt;
  return std::move(*value->dictionary());
}

std::optional<std::string> decodedText(std::string_view text) {
  std::optional<platform::Data> bytes = platform::base64Decoded(text);
  if (!bytes || !platform::isValidUTF8(bytes->view())) return std::nullopt;
  return std::move(*bytes).string();
}

std::optional<std::string> decodedTextOf(const platform::Value* value) {
  if (value == nullptr || value->text() == nullptr) return std::nullopt;
  return decodedText(*value->text());
}

platform::Dictionary decodedPayload(const FrameRecord& frame, const platform::Dictionary& payload) {
  if (frame.type != SkeldaStreamFrameTypeUtil::kEvent) return payload;
  platform::Dictionary decoded = payload;
  if (auto name = decodedTextOf(payload.find("sk.event.name"))) {
    decoded.set("sk.event.name", *std::move(name));
  }
  for (const char* key : {"sk.event.user.parameters", "sk.event.skelda.parameters"}) {
    const platform::Value* parameters = payload.find(key);
    if (parameters != nullptr && parameters->dictionary() != nullptr) {
      decoded.set(key, decodedParameters(*parameters->dictionary()));
    }
  }
  return decoded;
}

std::string wallClockText(std::int64_t milliseconds) {
  if (milliseconds < kFirstShown || milliseconds > kLastShown) {
    return fmt::format("{}ms", milliseconds);
  }
  const std::chrono::sys_time<std::chrono::milliseconds> time{
      std::chrono::milliseconds(milliseconds)};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count(),
                     clock.subseconds().count());
}

std::string flawOf(const FrameRecord& frame) {
  if (frame.hasCrc && !frame.hasRightCrc()) {
    return fmt::format("CRC {:08x}, stored {:08x}", frame.computedCrc, frame.storedCrc);
  }
  if (frame.hasWholePayload() && !parsedPayload(frame)) return "the payload is no JSON object";
  return {};
}

std::string damageOf(const FrameRecord& frame) {
  return frame.className.empty() ? fmt::format("unknown frame type {}", frame.type) : flawOf(frame);
}

}  // namespace skelda::tools
