#include "Tools/Shared/FrameSummary.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Tools/Shared/PayloadText.h"

namespace skelda::tools {
namespace {

/// A type that no table holds can be any of 16 million: past this many different ones they are
/// counted as one.
constexpr std::size_t kMaximumTypes = 1000;
constexpr std::int32_t kOtherTypes = -1;
constexpr std::size_t kMaximumNameLength = 256;

std::string typeText(std::int32_t type) {
  if (type == kOtherTypes) return "other types";
  const std::string_view name = SkeldaStreamFrameTypeUtil::classNameForFrameType(type);
  return fmt::format("{} {}", type, name.empty() ? "-" : name);
}

}  // namespace

void FrameSummary::add(const FrameRecord& frame) {
  if (frames_ == 0) firstTime_ = lastTime_ = frame.epochTimeStamp;
  firstTime_ = std::min(firstTime_, frame.epochTimeStamp);
  lastTime_ = std::max(lastTime_, frame.epochTimeStamp);
  ++frames_;
  payloadBytes_ += frame.payloadLength;
  if (frame.hasCrc && !frame.hasRightCrc()) ++wrongCrcs_;
  const bool isCounted = framesByType_.contains(frame.type) || framesByType_.size() < kMaximumTypes;
  ++framesByType_[isCounted ? frame.type : kOtherTypes];
  if (frame.type == SkeldaStreamFrameTypeUtil::kEvent) addEvent(frame);
  if (frame.type == SkeldaStreamFrameTypeUtil::kSessionId) addSession(frame);
}

void FrameSummary::addEvent(const FrameRecord& frame) {
  ++events_;
  const auto payload = parsedPayload(frame);
  const auto name = payload ? decodedTextOf(payload->find("sk.event.name")) : std::nullopt;
  if (!name || name->size() > kMaximumNameLength ||
      (eventsByName_.size() >= kMaximumNames && !eventsByName_.contains(*name))) {
    ++eventsOfOtherNames_;
  } else {
    ++eventsByName_[*name];
  }
}

void FrameSummary::addSession(const FrameRecord& frame) {
  // A session's id is written again at the head of every log and at its end.
  const auto payload = parsedPayload(frame);
  const platform::Value* id = payload ? payload->find("sk.session.id") : nullptr;
  if (id != nullptr && sessions_.size() < kMaximumSessions) sessions_.insert(id->integerValue());
}

std::string FrameSummary::text() const {
  std::string text = fmt::format("frames {}\npayload bytes {}\n", frames_, payloadBytes_);
  auto out = std::back_inserter(text);
  if (frames_ > 0) {
    fmt::format_to(out, "from {}\nto {}\n", wallClockText(firstTime_), wallClockText(lastTime_));
  }
  if (wrongCrcs_ > 0) fmt::format_to(out, "wrong CRCs {}\n", wrongCrcs_);
  fmt::format_to(out, "sessions {}{}\n", sessions_.size() == kMaximumSessions ? "at least " : "",
                 sessions_.size());
  for (const auto& [type, count] : framesByType_) {
    fmt::format_to(out, "type {} {}\n", typeText(type), count);
  }
  fmt::format_to(out, "events {}\n", events_);

  std::vector<std::pair<std::string, std::uint64_t>> names(eventsByName_.begin(),
                                                           eventsByName_.end());
  std::stable_sort(names.begin(), names.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  for (const auto& [name, count] : names) {
    fmt::format_to(out, "event {} ", count);
    appendVisible(text, name);
    text += '\n';
  }
  if (eventsOfOtherNames_ > 0) fmt::format_to(out, "event {} (other names)\n", eventsOfOtherNames_);
  return text;
}

}  // namespace skelda::tools
