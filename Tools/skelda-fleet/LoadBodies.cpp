#include "Tools/skelda-fleet/LoadBodies.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Platform/Foundation/TextCoding.h"
#include "Tools/Shared/Digest.h"
#include "Tools/Shared/FrameInputs.h"
#include "Tools/Shared/FrameLogReader.h"

namespace skelda::fleet {
namespace {

using Type = SkeldaStreamFrameTypeUtil;
using nlohmann::json;

constexpr std::int64_t kBetweenLogs = 1000;  // milliseconds

bool isWrittenAnew(std::int32_t type) noexcept {
  return type == Type::kCounter || type == Type::kReportedIdentifers || type == Type::kSessionId;
}

std::shared_ptr<SkeldaStreamMessage> messageOf(const tools::FrameRecord& record) {
  const auto message = std::make_shared<SkeldaStreamMessage>();
  message->setFrameVersion(static_cast<std::int8_t>(record.version));
  message->setFrameType(record.type);
  message->setEpochTimeStamp(record.epochTimeStamp);
  message->setRelativeTimeStamp(record.relativeTimeStamp);
  message->setPayload(platform::Data(record.payload));
  return message;
}

}  // namespace

LoadBodies::LoadBodies(const std::vector<std::string>& paths, std::size_t leastBytes,
                       std::string run, std::int64_t beginsAt)
    : run_(std::move(run)), beginsAt_(beginsAt) {
  std::vector<tools::FrameInputProblem> problems;
  const auto inputs = tools::frameInputs(paths, problems);
  for (const auto& problem : problems) {
    throw std::runtime_error(problem.path + ": " + problem.reason);
  }
  for (const auto& input : inputs) read(input.path, leastBytes);
  if (recordings_.empty()) throw std::runtime_error("no whole frame log among the recorded ones");
}

LoadBodies::~LoadBodies() = default;

/// A log that is torn or was not closed yet is left out.
void LoadBodies::read(const std::string& path, std::size_t leastBytes) {
  std::ifstream file(path, std::ios::binary);
  const std::string log{std::istreambuf_iterator<char>(file), {}};
  if (!file) throw std::runtime_error(path + ": cannot be read");
  tools::FrameLogReader reader(log);
  tools::FrameRecord record;
  Recording recording;
  auto result = reader.next(record);
  for (; result == tools::FrameLogReader::Result::frame; result = reader.next(record)) {
    Frame frame{messageOf(record), record.epochTimeStamp, {}};
    if (isWrittenAnew(record.type)) frame.payload = json::parse(record.payload, nullptr, false);
    if (frame.payload.is_discarded()) return;
    recording.frames.push_back(std::move(frame));
  }
  auto& frames = recording.frames;
  if (result != tools::FrameLogReader::Result::end || frames.size() < 3 ||
      frames.front().message->frameType() != Type::kCounter ||
      frames.back().message->frameType() != Type::kFlush) {
    return;
  }
  recording.begins = std::min_element(frames.begin(), frames.end(), [](auto& a, auto& b) {
                       return a.epoch < b.epoch;
                     })->epoch;
  // What lies between the counter and the flush, again and again.
  const std::vector<Frame> records(frames.begin() + 1, frames.end() - 1);
  for (std::size_t length = log.size(); length < leastBytes; length += log.size()) {
    frames.insert(frames.end() - 1, records.begin(), records.end());
  }
  recordings_.push_back(std::move(recording));
}

std::string LoadBodies::identifier(std::uint32_t device) const {
  return tools::digestOf(fmt::format("{} {}", run_, device)).substr(0, 32);
}

LoadBodies::Body LoadBodies::body(std::uint32_t device, std::uint32_t log) {
  Recording& recording = recordings_[(device + log) % recordings_.size()];
  const std::int64_t later = beginsAt_ + log * kBetweenLogs - recording.begins;
  Body body{{}, static_cast<std::uint32_t>(recording.frames.size())};
  for (Frame& frame : recording.frames) write(frame, device, log, later, body.bytes);
  return body;
}

void LoadBodies::write(Frame& frame, std::uint32_t device, std::uint32_t log, std::int64_t later,
                       std::string& bytes) {
  SkeldaStreamMessage& message = *frame.message;
  message.setEpochTimeStamp(frame.epoch + later);
  json payload = frame.payload;
  if (message.frameType() == Type::kCounter) {
    payload["sk.frame.log.counter"] = log + 1;
  } else if (message.frameType() == Type::kSessionId) {
    payload["sk.session.id"] = payload.value("sk.session.id", frame.epoch) + later;
  } else if (message.frameType() == Type::kReportedIdentifers) {
    const std::string name = identifier(device);
    payload["sk.reported.id"] = {{"VendorId", name},
                                 {"iOSAdvertisingId", name},
                                 {"iOSInstallationId", platform::base64Encoded(name)}};
  }
  if (isWrittenAnew(message.frameType())) message.setPayload(platform::Data(payload.dump()));
  const auto written =
      SkeldaStreamMessageSerializer::streamMessageSerializer()->frameFromStreamMessage(message);
  if (!written) throw std::runtime_error("a recorded frame cannot be written again");
  bytes += written->view();
}

}  // namespace skelda::fleet
