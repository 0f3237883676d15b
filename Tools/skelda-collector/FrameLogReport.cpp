#include "Tools/skelda-collector/FrameLogReport.h"

#include <algorithm>
#include <cstdlib>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Tools/Shared/FrameLogReader.h"
#include "Tools/Shared/FrameSummary.h"
#include "Tools/Shared/PayloadText.h"

using namespace skelda;
using namespace skelda::tools;
using Types = SkeldaStreamFrameTypeUtil;

namespace {

// Of a text that stands in a list of logs.
constexpr std::size_t kShort = 200;
constexpr std::int64_t kLongest = std::int64_t{1} << 53;

/// Cut between characters, where it has to be.
std::string shortened(std::string text) {
  if (text.size() <= kShort) return text;
  std::size_t end = kShort;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end) + "\u2026";
}

std::string textIn(const platform::Dictionary& payload, const char* key) {
  const auto* value = payload.find(key);
  return value && value->text() ? shortened(std::string(*value->text())) : std::string();
}

std::int64_t integerIn(const platform::Dictionary& payload, const char* key) {
  const auto* value = payload.find(key);
  return value ? value->integerValue() : 0;
}

/// Counts under `key`, while there is room for another one.
template <class Key>
void count(std::map<Key, std::uint64_t>& counts, const Key& key) {
  if (counts.size() < FrameLogReport::kMost || counts.contains(key)) ++counts[key];
}

/// Reads the facts of a log, frame by frame.
class Facts {
 public:
  explicit Facts(FrameLogReport& report) : report_(report) {}

  void add(const FrameRecord& frame) {
    if (report_.firstTime == 0) report_.firstTime = frame.epochTimeStamp;
    report_.firstTime = std::min(report_.firstTime, frame.epochTimeStamp);
    report_.lastTime = std::max(report_.lastTime, frame.epochTimeStamp);
    count(report_.framesByType, frame.type);
    if (const auto payload = parsedPayload(frame)) note(frame, *payload);
    if (session_ && !session_->ended)
      session_->last = std::max(session_->last, frame.epochTimeStamp);
  }

 private:
  void note(const FrameRecord& frame, const platform::Dictionary& payload) {
    if (frame.type == Types::kFlush) report_.closed = textIn(payload, "sk.flush.frame.reason");
    if (frame.type == Types::kCounter)
      report_.counter =
          std::clamp<std::int64_t>(integerIn(payload, "sk.frame.log.counter"), 0, kLongest);
    if (frame.type == Types::kSessionId) noteSession(payload);
    if (frame.type == Types::kEvent)
      count(report_.eventsByName,
            shortened(decodedTextOf(payload.find("sk.event.name")).value_or("")));
    if (frame.type == Types::kAppInfo)
      report_.application =
          textIn(payload, "sk.bundle.id") + " " + textIn(payload, "sk.app.version");
    if (const auto* properties = payload.find("sk.device.properties");
        properties && properties->dictionary())
      report_.device = textIn(*properties->dictionary(), "device.model.1") + " " +
                       textIn(*properties->dictionary(), "device.os.version");
    if (const auto* identifiers = payload.find("sk.reported.id");
        identifiers && identifiers->dictionary())
      report_.installation = textIn(*identifiers->dictionary(), "iOSInstallationId");
  }

  void noteSession(const platform::Dictionary& payload) {
    const auto id = integerIn(payload, "sk.session.id");
    session_ = nullptr;
    if (report_.spans.size() >= FrameLogReport::kMost && !report_.spans.contains(id)) return;
    session_ = &report_.spans[id];
    session_->last = std::max(session_->last, id);
    const auto start = integerIn(payload, "sk.session.elapsed.start.time");
    const auto end = integerIn(payload, "sk.session.elapsed.end.time");
    // A length that no session has would leave the calendar.
    if (start < 0 || end <= 0 || end < start || end - start > kLongest || std::abs(id) > kLongest)
      return;
    session_->ended = true;
    session_->last = id + (end - start);
  }

  FrameLogReport& report_;
  FrameLogReport::Session* session_ = nullptr;
};

}  // namespace

FrameLogReport FrameLogReport::of(std::string_view bytes) {
  FrameLogReader reader(bytes);
  FrameSummary summary;
  FrameRecord frame;
  FrameLogReport report;
  Facts facts(report);
  auto result = FrameLogReader::Result::end;
  while (report.fault.empty() && (result = reader.next(frame)) == FrameLogReader::Result::frame) {
    report.fault = flawOf(frame);
    if (!report.fault.empty()) break;
    summary.add(frame);
    facts.add(frame);
  }
  if (result == FrameLogReader::Result::torn) report.fault = "torn frame: " + reader.problem();
  if (result == FrameLogReader::Result::damaged) report.fault = "damaged: " + reader.problem();
  if (bytes.empty()) report.fault = "no frames";
  report.offset = reader.offset();
  report.frames = summary.frames();
  report.sessions = summary.sessions();
  report.events = summary.events();
  return report;
}
