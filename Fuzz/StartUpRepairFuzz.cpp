// A leftover log of any bytes is cut to its longest readable prefix, closed and committed.

#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/Core/SkeldaWatchStreamSessionRule.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEvent.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Fuzz/Fuzz.h"
#include "Platform/Foundation/JSONReader.h"
#include "Tests/Support/AgentHome.h"

using namespace skelda::testing;

namespace {

using Writer = SkeldaStreamFrameLogWriter;

std::uint32_t numberAt(std::string_view bytes, std::size_t offset) {
  std::uint32_t number = 0;
  std::memcpy(&number, bytes.data() + offset, sizeof number);
  return number;
}

std::uint32_t typeOf(std::string_view frame) {
  return numberAt(frame, 0) >> 8;
}

/// The frame at the head of the bytes, as it comes out of a repair; empty where there is none. A
/// second reading of the format, which shares nothing with the one under test but the JSON reader
/// and the checksum.
std::string repairedFrame(std::string_view bytes) {
  if (bytes.size() < 24) return {};
  const auto type = static_cast<std::int32_t>(typeOf(bytes));
  const std::uint64_t payload = numberAt(bytes, 20);
  const bool footer = (bytes[0] & 0x0F) == 0;
  if (payload == 0 || !SkeldaStreamFrameTypeUtil::allFrameTypes().contains(type)) return {};
  if (24 + payload + (footer ? 4 : 0) > bytes.size()) return {};
  const auto object = readJSON(bytes.substr(24, payload), nullptr, {.maximumDepth = 512});
  if (!object || object->dictionary() == nullptr) return {};
  std::string frame(bytes.substr(0, 24 + payload));
  frame[0] = static_cast<char>(frame[0] & 0x0F);
  if (footer) {
    const auto crc = SkeldaUtil::dataChecksum(std::string_view(frame));
    frame.append(reinterpret_cast<const char*>(&crc), sizeof crc);
  }
  return frame;
}

struct Home : AgentHome {
  Home() {
    SkeldaWatchStreamSessionRule::sessionRuleWithFlushTriggerMap({}, {}, 5, 10, {})
        ->saveNewSessionIdArchiveFile(*SkeldaStreamEvent::streamEventWithEventName(
            "Lap", "CUSTOM_EVENT", false, false, {}, nullptr, Date::now()));
  }
};

void repair(const std::string& folder, bool crashed) {
  SkeldaKVStorage::sharedInstance()->setBoolean(crashed, std::string(Writer::kCrashFlagKey));
  const auto writer = Writer::fileWriterWithCurrentFrameLogFilePath(
      folder, "log", folder + "/commited", "log", SkeldaStreamFileManager::fileManager(),
      SkeldaStreamFileHandle::fileHandle(),
      SkeldaStreamMessageSerializer::streamMessageSerializer(),
      SkeldaStreamFrameDeserializer::streamFrameDeserializer(), {1}, {});
  writer->writePendingFiles();
  writer->syncBlock([] {});
  require(writer->moduleState() == 3);  // ready
}

/// What was committed of a log: its readable prefix, in full, closed as a crashed one.
void requireCommited(const std::string& folder, std::string_view log, bool crashed) {
  std::string expected;
  for (std::string frame; !(frame = repairedFrame(log)).empty(); log.remove_prefix(frame.size())) {
    expected += frame;
  }
  const auto names = namesIn(folder);
  require(!names.empty());
  const std::string actual = readFile(folder + "/" + names[0]);
  require(actual.starts_with(expected));
  std::string_view rest = std::string_view(actual).substr(expected.size());
  for (const std::uint32_t type : {128U, 1U}) {
    if (type == 128 && !crashed) continue;
    const std::string frame = repairedFrame(rest);
    require(!frame.empty() && typeOf(frame) == type);
    rest.remove_prefix(frame.size());
  }
  require(rest.empty());
}

}  // namespace

void fuzz(std::string_view log) {
  static const FoldersInMemory inMemory;
  static const Home home;
  const bool crashed = (takeByte(log) & 1) != 0;
  const std::string folder = home.storageFolder();
  const std::string commited = folder + "/commited";
  std::filesystem::remove_all(commited);
  std::ofstream(folder + "/log", std::ios::binary | std::ios::trunc) << log;

  repair(folder, crashed);

  if (log.empty()) {
    require(!std::filesystem::exists(commited));  // a log of no bytes is no crash
  } else {
    requireCommited(commited, log, crashed);
  }
  // The new log is a counter frame.
  const std::string current = readFile(folder + "/log");
  require(!current.empty() && repairedFrame(current) == current && typeOf(current) == 2);
}
