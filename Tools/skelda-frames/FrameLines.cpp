#include "Tools/skelda-frames/FrameLines.h"

#include <fmt/format.h>

#include <iterator>

#include "Platform/Foundation/JSONWriter.h"
#include "Tools/Shared/PayloadText.h"

namespace skelda::tools {
namespace {

std::string crcText(const FrameRecord& frame) {
  if (!frame.hasCrc) return "-";
  return fmt::format("{:08x}:{}", frame.storedCrc, frame.hasRightCrc() ? "right" : "wrong");
}

}  // namespace

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
