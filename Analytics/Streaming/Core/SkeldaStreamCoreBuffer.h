#pragma once

#include <memory>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamCoreBuffer.h"
#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamCoreComponent.h"
#include "Analytics/Utils/SkeldaActor/SkeldaActorDeferredQueue.h"

/// The entry of the pipeline: takes what the sources send, each from its own queue, and passes it
/// on in order of arrival. While paused, messages wait in order. Holds, drops and adds nothing
/// else.
class SkeldaStreamCoreBuffer : public SkeldaActorStreamCoreComponent,
                               public ISkeldaStreamCoreBuffer {
 public:
  static std::shared_ptr<SkeldaStreamCoreBuffer> streamBuffer();
  std::string_view className() const noexcept override { return "SkeldaStreamCoreBuffer"; }

  void streamMessage(ISkeldaStreamMessage::Ref message) override;
  void nextStageDidChangeState(std::int32_t state) override;
  /// Suspensions count: as many resumes undo them. Any thread.
  void pause();
  void resume();

 protected:
  void didInit() override;

 private:
  SkeldaStreamCoreBuffer();

  std::shared_ptr<SkeldaActorDeferredQueue> deferredQueue_;
};
