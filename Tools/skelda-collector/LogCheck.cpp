#include "Tools/skelda-collector/LogCheck.h"

#include <fmt/format.h>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameFormat.h"
#include "Tools/Shared/FrameLogReader.h"

using namespace skelda;
using tools::FrameLogReader;

LogCheck LogCheck::of(std::string_view bytes) {
  FrameLogReader reader(bytes);
  tools::FrameRecord frame;
  LogCheck check;
  auto result = FrameLogReader::Result::frame;
  std::string problem;
  while (problem.empty() && (result = reader.next(frame)) == FrameLogReader::Result::frame) {
    if (frame.hasCrc && !frame.hasRightCrc()) {
      problem = "wrong checksum";
    } else {
      ++check.frames;
    }
  }
  if (problem.empty() && result != FrameLogReader::Result::end) problem = reader.problem();
  if (!problem.empty()) check.fault = fmt::format("at {}: {}", reader.offset(), problem);
  const bool hasHeader = bytes.size() > frameformat::kHeaderLength;
  check.isLog = check.frames > 0 || (hasHeader && result != FrameLogReader::Result::damaged);
  return check;
}
