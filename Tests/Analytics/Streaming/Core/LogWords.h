#pragma once

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace skelda::testing {

/// A frame of a log in a word (see wordFor).
inline std::string frameWord(const SkeldaStreamFrame& frame) {
  using Type = SkeldaStreamFrameTypeUtil;
  std::shared_ptr<ISkeldaStreamMessage> entity;
  const auto& json = frame.payload();
  if (frame.frameType() == Type::kFlush) {
    entity = SkeldaStreamFlush::streamEntityFromJSONData(json);
  } else if (frame.frameType() == Type::kCounter) {
    entity = SkeldaStreamCounter::streamEntityFromJSONData(json);
  } else if (frame.frameType() == Type::kSessionId) {
    entity = SkeldaStreamSessionId::streamEntityFromJSONData(json);
  } else if (frame.frameType() == Type::kEvent) {
    entity = SkeldaStreamEvent::streamEntityFromJSONData(json);
  } else if (frame.frameType() == Type::kSessionDeviceProperties) {
    entity = SkeldaStreamSessionDeviceProperties::streamEntityFromJSONData(json);
  }
  return entity ? wordFor(*entity) : std::to_string(frame.frameType());
}

/// The frames of a log, in words. A torn tail is "torn".
inline std::string logWords(std::string_view bytes) {
  std::string words;
  std::size_t read = 0;
  for (const auto& f : SkeldaStreamFrameDeserializer().allStreamFramesFromData(bytes, &read)) {
    addWord(words, frameWord(*f));
  }
  if (read != bytes.size()) addWord(words, "torn");
  return words;
}

/// The paths of the logs in a folder, oldest first: their names end with the time.
inline std::vector<std::string> logPaths(const std::string& folder) {
  auto paths = namesIn(folder);
  for (auto& path : paths) path.insert(0, folder + "/");
  return paths;
}

}  // namespace skelda::testing
