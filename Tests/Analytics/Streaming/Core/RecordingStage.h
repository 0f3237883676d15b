#pragma once

#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamCoreComponent.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCounter.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEvent.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionDeviceProperties.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionId.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessage.h"
#include "Tests/Support/Testing.h"

namespace skelda::testing {

using Message = ISkeldaStreamMessage::Ref;

/// An event that happened `ms` after 1970, at an uptime of `ms` + 7; its id is `ms`.
inline std::shared_ptr<SkeldaStreamEvent> eventAt(std::int64_t ms) {
  auto event = SkeldaStreamEvent::streamEventWithEventName(
      "Lap", "CUSTOM_EVENT", false, false, {}, nullptr, Date(Date::Microseconds(ms * 1000)));
  event->setEventId(static_cast<std::uint32_t>(ms));
  event->setEpochTimeStamp(0);
  event->setRelativeTimeStamp(7);
  return event;
}
inline std::shared_ptr<SkeldaStreamMessage> plainMessage(std::int32_t frameType,
                                                         std::string payload = "{}") {
  auto message = std::make_shared<SkeldaStreamMessage>();
  message->setFrameVersion(1);
  message->setFrameType(frameType);
  message->setPayload(Data(std::move(payload)));
  return message;
}

/// A message in a word: "e5" an event, "flush3", "session@0" and, ended, "session@0..12",
/// "propsStart", "propsEnd", "counter1", else its frame type.
inline std::string wordFor(const ISkeldaStreamMessage& message) {
  if (const auto* e = dynamic_cast<const SkeldaStreamEvent*>(&message))
    return "e" + std::to_string(e->eventId());
  if (const auto* f = dynamic_cast<const SkeldaStreamFlush*>(&message))
    return "flush" + std::to_string(f->status());
  if (const auto* c = dynamic_cast<const SkeldaStreamCounter*>(&message))
    return "counter" + std::to_string(c->frameCounter());
  if (const auto* p = dynamic_cast<const SkeldaStreamSessionDeviceProperties*>(&message))
    return p->endProperties() ? "propsEnd" : "propsStart";
  if (const auto* s = dynamic_cast<const SkeldaStreamSessionId*>(&message)) {
    const auto start = s->startupTime().value().microsecondsSince1970().count() / 1000;
    const auto end = s->elapsedEndTime();
    return "session@" + std::to_string(start) + (end ? ".." + std::to_string(end) : "");
  }
  return std::to_string(message.frameType());
}

/// A neighbour that writes down what it is told. Any thread.
class RecordingStage : public Object,
                       public ISkeldaStreamComponent,
                       public ISkeldaStreamCoreComponent {
 public:
  std::string_view className() const noexcept override { return "RecordingStage"; }
  void streamMessage(Message message) override { messages_.add(std::move(message)); }
  std::optional<std::set<std::int32_t>> supportedFrameTypes() const override { return types; }
  void registerNextStageComponent(std::shared_ptr<ISkeldaStreamComponent>) override {}
  void registerPreviousStageComponent(std::shared_ptr<ISkeldaStreamComponent>) override {}
  void asyncStreamResponse(ObjectRef) override {}
  void syncStreamResponse(ObjectRef) override {}
  void nextStageDidChangeState(std::int32_t state) override { states_.add(state); }
  void startup() override {}

  std::vector<Message> messages(std::size_t count = 0) { return messages_.wait(count); }
  std::string words(std::size_t count = 0) {
    std::string all;
    for (const auto& message : messages(count)) addWord(all, wordFor(*message));
    return all;
  }
  std::vector<std::int32_t> states(std::size_t count = 0) { return states_.wait(count); }

  std::optional<std::set<std::int32_t>> types = SkeldaStreamFrameTypeUtil::allFrameTypes();

 private:
  Recorded<Message> messages_;
  Recorded<std::int32_t> states_;
};

/// A frame of a log in a word (see wordFor), where it is of one of these classes.
template <class... Entities>
std::string frameWord(const SkeldaStreamFrame& frame) {
  std::shared_ptr<ISkeldaStreamMessage> entity;
  const auto read = [&](std::int32_t type, auto reader) {
    if (frame.frameType() == type) entity = reader(frame.payload());
  };
  (read(skelda::kFrameTypeOf<Entities>, &Entities::streamEntityFromJSONData), ...);
  return entity ? wordFor(*entity) : std::to_string(frame.frameType());
}

/// The frames of a log, in words. A torn tail is "torn".
inline std::string logWords(std::string_view bytes) {
  std::string words;
  std::size_t read = 0;
  for (const auto& f : SkeldaStreamFrameDeserializer().allStreamFramesFromData(bytes, &read))
    addWord(words, frameWord<SkeldaStreamFlush, SkeldaStreamCounter, SkeldaStreamSessionId,
                             SkeldaStreamEvent, SkeldaStreamSessionDeviceProperties>(*f));
  if (read != bytes.size()) addWord(words, "torn");
  return words;
}

/// The paths of the logs in a folder, oldest first: their names end with the time.
inline Texts logPaths(const std::string& folder) {
  auto paths = namesIn(folder);
  for (auto& path : paths) path.insert(0, folder + "/");
  return paths;
}

}  // namespace skelda::testing
