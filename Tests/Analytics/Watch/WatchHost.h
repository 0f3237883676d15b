#pragma once

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamCoreBuffer.h"
#include "Analytics/Streaming/Core/StreamManager/SkeldaWatchStreamManager.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"
#include "Tests/Support/AgentHome.h"

namespace skelda::testing {

inline const Dictionary kWatch{{"Skelda Watch API Key", "unseen-KEY"},
                               {"CFBundleIdentifier", "com.example.run"}};

/// Everything that the sources send from now on.
inline std::shared_ptr<RecordingStage> recordSources() {
  auto recorder = std::make_shared<RecordingStage>();
  SkeldaWatchStreamManager::manager()->streamBuffer()->registerNextStageComponent(recorder);
  return recorder;
}

/// For scenarios: says what was not as expected, and how often that was so.
inline int failures = 0;
inline void expect(bool isSo, const char* what) {
  if (isSo) return;
  ++failures;
  std::puts(what);
}

}  // namespace skelda::testing
