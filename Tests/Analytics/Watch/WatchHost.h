#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamCoreBuffer.h"
#include "Analytics/Streaming/Core/StreamManager/SkeldaWatchStreamManager.h"
#include "Platform/Foundation/Bundle.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"

namespace skelda::testing {

/// Makes this process the watch extension of an application with that Info.plist, or a program that
/// is no extension.
inline void becomeHost(platform::Dictionary information, bool isExtension = true) {
  const std::string bundle = isExtension ? "/Run.app/PlugIns/Watch.appex" : "/Run.app";
  platform::Bundle::setMain(
      std::make_shared<platform::Bundle>(bundle, bundle + "/run", std::move(information)));
}

inline platform::Dictionary watchInformation() {
  return {{"Skelda Watch API Key", "KEY"}, {"CFBundleIdentifier", "com.example.run"}};
}

/// Behind the core buffer: everything that the sources send, from now on.
inline std::shared_ptr<RecordingStage> recordSources() {
  auto recorder = std::make_shared<RecordingStage>();
  SkeldaWatchStreamManager::manager()->streamBuffer()->registerNextStageComponent(recorder);
  return recorder;
}

inline std::vector<std::shared_ptr<SkeldaStreamEvent>> eventsAmong(
    const std::vector<Message>& messages) {
  std::vector<std::shared_ptr<SkeldaStreamEvent>> events;
  for (const auto& message : messages) {
    if (auto event = std::dynamic_pointer_cast<SkeldaStreamEvent>(message)) {
      events.push_back(std::move(event));
    }
  }
  return events;
}

/// What a scenario expects: says what was not so, and counts it.
class Expectations {
 public:
  template <class A, class B>
  void equal(const char* what, const A& actual, const B& expected) {
    if (actual == expected) return;
    ++failures;
    std::printf("NOT AS EXPECTED: %s\n", what);
  }
  int failures = 0;
};

}  // namespace skelda::testing
