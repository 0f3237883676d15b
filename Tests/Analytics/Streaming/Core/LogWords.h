#pragma once

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"

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
  std::vector<std::string> paths;
  std::error_code absent;
  for (const auto& entry : std::filesystem::directory_iterator(folder, absent)) {
    paths.push_back(entry.path().string());
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace skelda::testing
