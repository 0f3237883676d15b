#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Tests/Analytics/Streaming/Core/RecordingStage.h"

namespace skelda::testing {

/// A source before a recorder that takes every frame type, those that reach no log included.
template <class Source>
struct SourceRig {
  std::shared_ptr<Source> source = Source::getSourceInstance();
  std::shared_ptr<RecordingStage> recorder = std::make_shared<RecordingStage>();

  SourceRig() {
    recorder->types->insert(0);
    source->registerNextStageComponent(recorder);
  }
  /// What the source has sent by the time all that was posted to it has run.
  std::vector<Message> sent() {
    settle(*source);
    return recorder->messages();
  }
  /// The last message as the T that it has to be.
  template <class T>
  std::shared_ptr<T> last() {
    const auto all = sent();
    const auto message = all.empty() ? nullptr : std::dynamic_pointer_cast<T>(all.back());
    if (message == nullptr) ADD_FAILURE() << "the last message is missing or of another class";
    return message;
  }
  /// Type and payload of every message, as "type payload".
  std::vector<std::string> sentTexts() {
    std::vector<std::string> texts;
    for (const auto& message : sent()) {
      const auto payload = message->payload();
      texts.push_back(std::to_string(message->frameType()) + " " +
                      (payload ? payload->string() : "nothing"));
    }
    return texts;
  }
};

}  // namespace skelda::testing
