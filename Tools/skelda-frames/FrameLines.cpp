#include "Tools/skelda-frames/FrameLines.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <iterator>

#include "Platform/Foundation/JSONWriter.h"
#include "Tools/skelda-frames/PayloadText.h"

namespace skelda::tools {
namespace {

/// The last millisecond of the year 9999, and the first of the year 1.
constexpr std::int64_t kLastShown = 253402300799999;
constexpr std::int64_t kFirstShown = -62135596800000;

std::string crcText(const FrameRecord& frame) {
  if (!frame.hasCrc) return "-";
  return fmt::format("{:08x}:{}", frame.storedCrc, frame.hasRightCrc() ? "right" : "wrong");
}

}  // namespace

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

std::string frameLine(const FrameRecord& frame, bool plain) {
  std::string line = fmt::format("{} v{}{} {} {} {} up={}ms len={} crc={} ", frame.offset,
                                 frame.version, frame.isBigEndian ? "be" : "", frame.type,
                                 frame.className.empty() ? "-" : frame.className,
                                 wallClockText(frame.epochTimeStamp), frame.relativeTimeStamp,
                                 frame.payloadLength, crcText(frame));
  const auto payload = plain ? parsedPayload(frame) : std::nullopt;
  if (payload) {
    appendVisible(line, platform::jsonText(decodedPayload(frame, *payload)));
  } else {
    appendVisible(line, frame.payload);
    if (!frame.hasWholePayload()) {
      fmt::format_to(std::back_inserter(line), "... ({} bytes more)",
                     frame.payloadLength - frame.payload.size());
    }
  }
  return line;
}

std::string frameJSON(const FrameRecord& frame, const std::string& file, bool plain) {
  std::string json;
  platform::JSONWriter writer(json);
  writer.beginObject();
  writer.key("file");
  writer.text(file);
  writer.key("offset");
  writer.unsignedInteger(frame.offset);
  writer.key("version");
  writer.unsignedInteger(frame.version);
  writer.key("bigEndian");
  writer.boolean(frame.isBigEndian);
  writer.key("type");
  writer.integer(frame.type);
  writer.key("class");
  frame.className.empty() ? writer.null() : writer.text(frame.className);
  writer.key("epoch");
  writer.integer(frame.epochTimeStamp);
  writer.key("time");
  writer.text(wallClockText(frame.epochTimeStamp));
  writer.key("uptime");
  writer.integer(frame.relativeTimeStamp);
  writer.key("length");
  writer.unsignedInteger(frame.payloadLength);
  if (frame.hasCrc) {
    writer.key("crc");
    writer.text(fmt::format("{:08x}", frame.storedCrc));
    writer.key("crcRight");
    writer.boolean(frame.hasRightCrc());
  }
  if (const auto payload = parsedPayload(frame)) {
    writer.key("payload");
    writer.value(plain ? decodedPayload(frame, *payload) : *payload);
  } else {
    // What cannot be shown as JSON is shown as text, as far as it was kept.
    writer.key("payloadText");
    writer.text(frame.payload);
    if (!frame.hasWholePayload()) {
      writer.key("cutOffAt");
      writer.unsignedInteger(frame.payload.size());
    }
  }
  writer.endObject();
  std::string visible;
  appendVisible(visible, json);
  return visible;
}

}  // namespace skelda::tools
