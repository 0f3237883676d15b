#pragma once

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamCoreBuffer.h"
#include "Analytics/Streaming/Core/StreamManager/SkeldaWatchStreamManager.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"
#include "Tests/Support/AgentHome.h"

namespace skelda::testing {

/// A part of a test that needs a process of its own: the test program runs itself again with the
/// scenario's name in the environment, and its main() then does nothing else. What it prints and
/// logs comes back, with the status that it ended with; a status other than 0 is a failure.
struct Scenario {
  static constexpr const char* kVariable = "SKELDA_SCENARIO";

  Scenario(const char* name, int (*body)()) { all()[name] = body; }
  static std::map<std::string, int (*)()>& all() {
    static std::map<std::string, int (*)()> scenarios;
    return scenarios;
  }

  struct Outcome {
    std::string output;

    int count(std::string_view part) const {
      int found = 0;
      for (auto at = output.find(part); at != output.npos; at = output.find(part, at + 1)) ++found;
      return found;
    }
  };
  /// Runs it to its end in the environment of this moment.
  static Outcome run(const std::string& name) {
    const TemporaryDirectory folder;
    const auto self = std::filesystem::read_symlink("/proc/self/exe").string();
    const auto command = fmt::format("{}='{}' SKELDA_LOG=stderr '{}' >{} 2>&1", kVariable, name,
                                     self, folder / "output");
    const int status = std::system(command.c_str());
    Outcome outcome{readFile(folder / "output")};
    EXPECT_EQ(status, 0) << outcome.output;
    return outcome;
  }
};

inline const Dictionary kWatch{{"Skelda Watch API Key", "unseen-KEY"},
                               {"CFBundleIdentifier", "com.example.run"}};

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
