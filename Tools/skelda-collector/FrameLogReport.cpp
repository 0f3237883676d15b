#include "Tools/skelda-collector/FrameLogReport.h"

#include <nlohmann/json.hpp>
#include <set>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Analytics/Utils/SkeldaUtil.h"

namespace {

constexpr std::int32_t kSessionIdFrame = 128;
constexpr std::int32_t kEventFrame = 134;

/// Why the frame that `bytes` is made of is no frame of a log; empty when it is.
std::string faultOf(const SkeldaStreamFrame& frame, std::string_view bytes,
                    std::set<std::int64_t>& sessions) {
  const auto payload = nlohmann::json::parse(frame.payload().view(), nullptr, false);
  if (!payload.is_object()) return "the payload is not a JSON object";
  if (frame.frameVersion() == 0) {
    const std::string_view covered = bytes.substr(0, bytes.size() - 4);
    const auto sum =
        SkeldaUtil::dataChecksum(skelda::platform::Data(covered.data(), covered.size()));
    if (sum != frame.crc32()) return "the checksum is wrong";
  }
  if (frame.frameType() == kSessionIdFrame) {
    const auto id = payload.find("sk.session.id");
    if (id != payload.end() && id->is_number_integer()) sessions.insert(id->get<std::int64_t>());
  }
  return {};
}

}  // namespace

FrameLogReport FrameLogReport::of(std::string_view bytes) {
  const SkeldaStreamFrameDeserializer reader;
  FrameLogReport report;
  std::set<std::int64_t> sessions;
  if (bytes.empty()) report.fault = "no frames";
  while (report.fault.empty() && report.offset < bytes.size()) {
    const std::string_view rest = bytes.substr(report.offset);
    std::uint32_t length = 0;
    if (!reader.isAtLeastOneFrameInData(rest, &length)) {
      report.fault = length == 0 ? "a part of a frame's header"
                                 : "a frame of " + std::to_string(length) + " bytes, of which " +
                                       std::to_string(rest.size()) + " are there";
      break;
    }
    const auto frame = reader.streamFrameFromData(rest);
    report.fault = faultOf(*frame, rest.substr(0, length), sessions);
    if (!report.fault.empty()) break;
    ++report.frames;
    report.events += frame->frameType() == kEventFrame;
    report.offset += length;
  }
  report.sessions = sessions.size();
  return report;
}
