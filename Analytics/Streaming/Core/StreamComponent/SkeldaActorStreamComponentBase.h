#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamComponent.h"
#include "Analytics/Streaming/Core/StreamComponent/SkeldaNextStageMap.h"
#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"

/// The base of every stage: forwards a message to the next stages registered for its frame type,
/// and hands responses back to the stages before.
///
/// Lives on its own actor queue. Next stages are held strongly and previous ones weakly, so a
/// pipeline is owned from its front. What is missing (a null stage, a null response) is reported
/// by the debug checks and otherwise ignored.
class SkeldaActorStreamComponentBase : public SkeldaActor, public ISkeldaStreamComponent {
 public:
  /// A stage needs a description: aborts.
  SkeldaActorStreamComponentBase();

  void streamMessage(ISkeldaStreamMessage::Ref message) override;
  /// Every frame type; a stage that takes fewer overrides it.
  std::optional<std::set<std::int32_t>> supportedFrameTypes() const override;
  void registerNextStageComponent(std::shared_ptr<ISkeldaStreamComponent> stage) override;
  void registerPreviousStageComponent(std::shared_ptr<ISkeldaStreamComponent> stage) override;
  void asyncStreamResponse(platform::ObjectRef response) override;
  void syncStreamResponse(platform::ObjectRef response) override;
  /// Every stage overrides it: this one only reports.
  void startup() override;

  // Copies, taken on the stage's queue; any thread.
  SkeldaNextStageMap frameTypeToNextStageComponentsMap();
  /// Those that are alive.
  std::vector<std::shared_ptr<ISkeldaStreamComponent>> previousStageComponents();

 protected:
  explicit SkeldaActorStreamComponentBase(const std::string& description);

  /// Forwards by frame type; a message that no stage takes is lost without a trace.
  virtual void onqueue_streamMessage(const ISkeldaStreamMessage::Ref& message);
  /// The same for several: each stage is handed all of its share at once.
  void onqueue_streamMessages(const std::vector<ISkeldaStreamMessage::Ref>& messages);
  virtual void onqueue_registerNextStageComponent(
      const std::shared_ptr<ISkeldaStreamComponent>& stage);
  virtual void onqueue_registerPreviousStageComponent(
      const std::shared_ptr<ISkeldaStreamComponent>& stage);
  /// Passes the response on, synchronously, however it arrived.
  virtual void onqueue_streamResponse(const platform::ObjectRef& response);
  void onqueue_sendToPreviousStageSyncResponse(const platform::ObjectRef& response);
  void onqueue_sendToPreviousStageAsyncResponse(const platform::ObjectRef& response);
  std::vector<std::shared_ptr<ISkeldaStreamComponent>> onqueue_livePreviousStages();

 private:
  SkeldaNextStageMap frameTypeToNextStageComponentsMap_;
  std::vector<std::weak_ptr<ISkeldaStreamComponent>> previousStageComponents_;
};
