#include "Tools/skelda-collector/LogReading.h"

#include <algorithm>
#include <cctype>
#include <deque>
#include <map>
#include <vector>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameFormat.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Foundation/TextCoding.h"
#include "Tools/Shared/FrameLogReader.h"
#include "Tools/Shared/PayloadText.h"

using namespace skelda;
using namespace skelda::tools;
using Types = SkeldaStreamFrameTypeUtil;
using Json = nlohmann::ordered_json;

namespace {

constexpr std::uint64_t kMostFrames = 200;
constexpr std::uint64_t kMostBytes = 64u << 10;

Json jsonOf(const platform::Value& value) {
  return Json::parse(platform::jsonText(value), nullptr, false);
}

/// UTF-8 however it came, and no longer than what anybody reads.
std::string readable(std::string_view text) {
  std::string out;
  appendVisible(out, text.substr(0, kMostBytes));
  return out;
}

std::uint64_t lengthOf(const FrameRecord& frame) {
  return frameformat::overheadOfVersion(frame.version) + std::uint64_t{frame.payloadLength};
}

Json headOf(const FrameRecord& frame) {
  Json json{{"offset", frame.offset},
            {"length", lengthOf(frame)},
            {"header", frameformat::kHeaderLength},
            {"type", frame.type},
            {"class", std::string(frame.className)},
            {"version", frame.version},
            {"bigEndian", frame.isBigEndian},
            {"epoch", frame.epochTimeStamp},
            {"time", wallClockText(frame.epochTimeStamp)},
            {"uptime", frame.relativeTimeStamp},
            {"payloadLength", frame.payloadLength}};
  if (frame.hasCrc) json["crc"] = frame.storedCrc;
  return json;
}

Json payloadOf(const FrameRecord& frame) {
  const auto payload = parsedPayload(frame);
  return payload ? jsonOf(decodedPayload(frame, *payload)) : Json();
}

/// Calls `visit(frame)` for each frame; stops where that is false.
template <class Visit>
void forEachFrame(std::string_view log, Visit visit) {
  FrameLogReader reader(log);
  for (FrameRecord frame;
       reader.next(frame) == FrameLogReader::Result::frame && visit(std::as_const(frame));) {
  }
}

bool contains(std::string_view text, std::string_view part) {
  const auto same = [](unsigned char a, unsigned char b) {
    return std::tolower(a) == std::tolower(b);
  };
  return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

/// What says where a log came from: what stands at its head, and the figures of its sessions.
bool isOfEnvironment(std::int32_t type) {
  return type == Types::kSessionDeviceProperties ||
         std::any_of(Types::kTable.begin(), Types::kTable.end(), [type](const Types::Row& row) {
           return row.frameType == type && (row.roles & Types::kSticky) != 0;
         });
}

}  // namespace

Json LogReading::frames(std::string_view log, std::uint64_t first) {
  Json frames = Json::array();
  Json next;
  std::uint64_t index = 0;
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  forEachFrame(log, [&](const FrameRecord& frame) {
    if (index++ < first) return true;
    if (frames.empty()) begin = frame.offset;
    const bool fits = frames.empty() || (frames.size() < kMostFrames &&
                                         frame.offset + lengthOf(frame) - begin <= kMostBytes);
    if (!fits) {
      next = index - 1;
      return false;
    }
    Json shown = headOf(frame);
    shown["index"] = index - 1;
    if (frame.payloadLength <= kMostBytes) {
      shown["payload"] = payloadOf(frame);
    } else {
      shown["payloadText"] = readable(frame.payload);
    }
    frames.push_back(std::move(shown));
    end = frame.offset + lengthOf(frame);
    return true;
  });
  const auto bytes = log.substr(static_cast<std::size_t>(begin),
                                static_cast<std::size_t>(std::min(end - begin, kMostBytes)));
  return {{"frames", std::move(frames)},
          {"bytes", platform::base64Encoded(bytes)},
          {"from", begin},
          {"end", end},
          {"size", log.size()},
          {"next", next}};
}

Json LogReading::environment(std::string_view log) {
  std::map<std::int32_t, Json> last;
  forEachFrame(log, [&](const FrameRecord& frame) {
    if (isOfEnvironment(frame.type) && frame.payloadLength <= kMostBytes)
      last[frame.type] = {{"type", frame.type},
                          {"class", std::string(frame.className)},
                          {"payload", payloadOf(frame)}};
    return true;
  });
  Json environment = Json::array();
  for (auto& [type, record] : last) environment.push_back(std::move(record));
  return environment;
}

Json LogReading::events(std::string_view log, const Wanted& wanted) {
  std::deque<Json> last;
  std::optional<std::int64_t> session;
  forEachFrame(log, [&](const FrameRecord& frame) {
    if (frame.offset >= wanted.below) return false;
    if (frame.type == Types::kSessionId) {
      const auto payload = parsedPayload(frame);
      const auto* id = payload ? payload->find("sk.session.id") : nullptr;
      session = id ? std::optional(id->integerValue()) : std::nullopt;
    }
    if (frame.type != Types::kEvent || frame.payloadLength > kMostBytes) return true;
    if (wanted.session && wanted.session != session) return true;
    const auto payload = parsedPayload(frame);
    const auto name = payload ? decodedTextOf(payload->find("sk.event.name")) : std::nullopt;
    if (!payload || !contains(name.value_or(""), wanted.name)) return true;
    Json event = {{"offset", frame.offset},
                  {"epoch", frame.epochTimeStamp},
                  {"session", session ? Json(*session) : Json()},
                  {"payload", jsonOf(decodedPayload(frame, *payload))}};
    last.push_front(std::move(event));
    if (last.size() > wanted.most) last.pop_back();
    return true;
  });
  return Json(std::vector<Json>(last.begin(), last.end()));
}
