#pragma once

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
  Source* operator->() const { return source.get(); }
  /// What the source has sent by the time all that was posted to it has run.
  std::vector<Message> sent() {
    settle(*source);
    return recorder->messages();
  }
  template <class T>
  std::shared_ptr<T> last() {
    return std::dynamic_pointer_cast<T>(sent().at(sent().size() - 1));
  }
  /// Type and payload of every message, as "type payload".
  Texts texts() {
    Texts texts;
    for (const auto& message : sent())
      texts.push_back(std::to_string(message->frameType()) + " " +
                      message->payload().value_or(Data("nothing")).string());
    return texts;
  }
};

}  // namespace skelda::testing
