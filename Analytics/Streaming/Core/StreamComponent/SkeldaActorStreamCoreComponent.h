#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamCoreComponent.h"
#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamComponentBase.h"

/// The base of the core stages: holds back every message until the stage after it is ready, then
/// lets them go in order. Readiness is reported backwards, from the last stage to the first.
///
/// A stage that forwards calls this class's onqueue_streamMessage(), never the base's: so nothing
/// overtakes what is held, and nothing reaches the last stage before that is ready.
class SkeldaActorStreamCoreComponent : public SkeldaActorStreamComponentBase,
                                       public ISkeldaStreamCoreComponent {
 public:
  /// A stage needs a description: aborts.
  SkeldaActorStreamCoreComponent();

  void startup() override;
  void updateState(std::int32_t state) override;
  /// Every core stage overrides it: aborts.
  void nextStageDidChangeState(std::int32_t state) override;

  // Copies, taken on the stage's queue; any thread.
  std::int32_t moduleState();
  std::vector<ISkeldaStreamMessage::Ref> deferredMessageQueue();

 protected:
  explicit SkeldaActorStreamCoreComponent(const std::string& description);

  /// The holding step: a ready stage forwards at once; else one more hop on the own queue, then
  /// holds or forwards, by the state of that moment.
  void onqueue_streamMessage(const ISkeldaStreamMessage::Ref& message) override;
  /// The same for several, none of them null.
  void onqueue_streamMessages(const std::vector<ISkeldaStreamMessage::Ref>& messages);
  virtual void onqueue_startup();
  virtual void onqueue_updateState(std::int32_t state);
  void onqueue_notifyChangedState(std::int32_t state);
  /// What every core stage but the last does with the state of the one after it.
  void becomeReadyWithNextStage(std::int32_t state);

 private:
  void onqueue_holdOrForward(const ISkeldaStreamMessage::Ref& message);

  std::int32_t moduleState_ = kStateConstructed;
  std::size_t messagesOnTheirHop_ = 0;
  std::vector<ISkeldaStreamMessage::Ref> deferredMessageQueue_;
};
