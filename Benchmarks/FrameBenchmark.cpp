#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEvent.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameIterator.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessage.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Tests/Support/MemoryStreamFileHandle.h"
#include "include/Skelda_Watch/SkeldaConstants.h"

// Frames of one payload length, one log of them: copied, encoded, decoded, iterated. Every program
// run has the copy beside the rest, since it is what they are held against: at least 0.3 of its
// bytes a second for payloads of 1 KiB and up.

namespace {

constexpr std::size_t kLogLength = std::size_t{1} << 20;

std::shared_ptr<SkeldaStreamMessage> messageOf(std::size_t payloadLength) {
  auto message = std::make_shared<SkeldaStreamMessage>();
  message->setFrameVersion(1);
  message->setFrameType(134);
  message->setPayload(platform::Data(std::string(payloadLength, 'x')));
  return message;
}

/// The messages of one log, and its bytes.
struct Log {
  explicit Log(std::size_t payloadLength) {
    const SkeldaStreamMessageSerializer serializer;
    while (bytes.size() < kLogLength) {
      messages.push_back(messageOf(payloadLength));
      bytes += serializer.frameFromStreamMessage(*messages.back())->string();
    }
    frameLength = bytes.size() / messages.size();
  }
  std::vector<std::shared_ptr<SkeldaStreamMessage>> messages;
  std::string bytes;
  std::size_t frameLength = 0;
};

void countBytes(benchmark::State& state, const Log& log) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(log.bytes.size()));
}

/// What the others are held against: the same bytes, frame by frame, into memory that is there.
void BM_FrameCopy(benchmark::State& state) {
  const Log log(static_cast<std::size_t>(state.range(0)));
  std::string target(log.bytes.size(), '\0');
  for (auto _ : state) {
    for (std::size_t at = 0; at < log.bytes.size(); at += log.frameLength) {
      std::memcpy(target.data() + at, log.bytes.data() + at, log.frameLength);
      benchmark::ClobberMemory();
    }
  }
  countBytes(state, log);
}

void BM_FrameEncode(benchmark::State& state) {
  const Log log(static_cast<std::size_t>(state.range(0)));
  const SkeldaStreamMessageSerializer serializer;
  for (auto _ : state) {
    for (const auto& message : log.messages) {
      benchmark::DoNotOptimize(serializer.frameFromStreamMessage(*message));
    }
  }
  countBytes(state, log);
}

void BM_FrameDecode(benchmark::State& state) {
  const Log log(static_cast<std::size_t>(state.range(0)));
  const SkeldaStreamFrameDeserializer deserializer;
  for (auto _ : state) {
    for (std::string_view left = log.bytes; !left.empty();) {
      std::size_t consumed = 0;
      if (!deserializer.isAtLeastOneFrameInData(left)) state.SkipWithError("no frame");
      benchmark::DoNotOptimize(deserializer.streamFrameFromData(left, &consumed));
      left.remove_prefix(consumed);
    }
  }
  countBytes(state, log);
}

void BM_FrameIterate(benchmark::State& state) {
  const Log log(static_cast<std::size_t>(state.range(0)));
  SkeldaStreamFrameIterator iterator(
      std::make_shared<skelda::testing::MemoryStreamFileHandle>(log.bytes),
      SkeldaStreamFrameDeserializer::streamFrameDeserializer(),
      {{kSkeldaStreamConfigOptionMaxBytesToReadFromFrameLogFile, state.range(1)}});
  for (auto _ : state) {
    std::size_t frames = 0;
    for (iterator.open("log"); iterator.hasNext(); ++frames) {
      benchmark::DoNotOptimize(iterator.nextWithError());
    }
    if (frames != log.messages.size()) state.SkipWithError("not every frame came back");
  }
  countBytes(state, log);
}

/// An event as a host logs it, from the call's arguments to the frame.
void BM_EventToFrame(benchmark::State& state) {
  const platform::Value parameters{
      {"lap", 3}, {"pace", "5:10"}, {"heart rate", 151}, {"distance", 1024.5}, {"shoe", "blue"}};
  const SkeldaStreamMessageSerializer serializer;
  for (auto _ : state) {
    const auto event = SkeldaStreamEvent::streamEventWithEventName(
        "LapDone", "CUSTOM_EVENT", false, false, parameters, nullptr, platform::Date::now());
    benchmark::DoNotOptimize(serializer.frameFromStreamMessage(*event));
  }
}

BENCHMARK(BM_FrameCopy)->Arg(1 << 10)->Arg(4 << 10)->Arg(64 << 10);
BENCHMARK(BM_FrameEncode)->Arg(1 << 10)->Arg(4 << 10)->Arg(64 << 10);
BENCHMARK(BM_FrameDecode)->Arg(1 << 10)->Arg(4 << 10)->Arg(64 << 10);
// The second number is the iterator's buffer: its default, and one of 64 KiB.
BENCHMARK(BM_FrameIterate)
    ->Args({1 << 10, 1000})
    ->Args({4 << 10, 1000})
    ->Args({64 << 10, 1000})
    ->Args({1 << 10, 65000})
    ->Args({4 << 10, 65000});
BENCHMARK(BM_EventToFrame);

}  // namespace
