#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessage.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Platform.h"

/// A stage of the stream pipeline, as its neighbours see it. Every call may come from any thread;
/// a stage works on its own queue, so all but syncStreamResponse() and supportedFrameTypes() return
/// before anything has happened.
///
/// A class is a stage by its base alone. What else it is (ISkeldaFrameSource,
/// ISkeldaStreamCoreBuffer and their like) does not derive from this one: the diamond would take
/// tables for the making of each class.
class ISkeldaStreamComponent {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamComponent";

  /// Hands a message over. Messages of one caller keep their order.
  virtual void streamMessage(ISkeldaStreamMessage::Ref message) = 0;
  /// Several, in their order.
  virtual void streamMessages(std::vector<ISkeldaStreamMessage::Ref> messages) {
    for (auto& message : messages) streamMessage(std::move(message));
  }
  /// The frame types that the stage takes; empty when it has no say, which refuses registration.
  virtual std::optional<std::set<std::int32_t>> supportedFrameTypes() const = 0;
  /// From now on `stage` receives the frame types that it supports. Held strongly. Registering a
  /// stage twice makes it receive each message twice.
  virtual void registerNextStageComponent(std::shared_ptr<ISkeldaStreamComponent> stage) = 0;
  /// From now on `stage` receives responses and state changes. Held weakly, once.
  virtual void registerPreviousStageComponent(std::shared_ptr<ISkeldaStreamComponent> stage) = 0;
  /// Hands a response back; it travels on towards the sources, unchanged.
  virtual void asyncStreamResponse(platform::ObjectRef response) = 0;
  /// The same, and waits until the stages before have had it.
  virtual void syncStreamResponse(platform::ObjectRef response) = 0;
  virtual void startup() = 0;

 protected:
  ~ISkeldaStreamComponent() = default;
};
