// A leftover log of any bytes is cut to its longest readable prefix, closed and committed.

#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/Core/SkeldaWatchStreamSessionRule.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEvent.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Analytics/Utils/SkeldaKVStorage.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Fuzz/Fuzz.h"
#include "Platform/Base/Log.h"
#include "Platform/Foundation/JSONReader.h"

namespace {

using Writer = SkeldaStreamFrameLogWriter;

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}

template <class Number>
Number numberAt(std::string_view bytes, std::size_t offset) {
  Number number;
  std::memcpy(&number, bytes.data() + offset, sizeof number);
  return number;
}

std::uint32_t crcOf(std::string_view bytes) {
  std::uint32_t crc = 0xFFFFFFFFU;
  for (const char byte : bytes) {
    crc ^= static_cast<std::uint8_t>(byte);
    for (int bit = 0; bit < 8; ++bit) crc = crc & 1U ? crc >> 1 ^ 0xEDB88320U : crc >> 1;
  }
  return ~crc;
}

/// The frame at the head of the bytes, as it comes out of a repair; empty where there is none. A
/// second reading of the format, which shares nothing with the one under test but the JSON reader.
std::string repairedFrame(std::string_view bytes) {
  if (bytes.size() < 24) return {};
  const auto type = static_cast<std::int32_t>(numberAt<std::uint32_t>(bytes, 0) >> 8);
  const std::uint64_t payload = numberAt<std::uint32_t>(bytes, 20);
  const bool footer = (bytes[0] & 0x0F) == 0;
  if (payload == 0 || !SkeldaStreamFrameTypeUtil::allFrameTypes().contains(type)) return {};
  if (24 + payload + (footer ? 4 : 0) > bytes.size()) return {};
  const auto object =
      skelda::platform::readJSON(bytes.substr(24, payload), nullptr, {.maximumDepth = 512});
  if (!object || object->dictionary() == nullptr) return {};
  std::string frame(bytes.substr(0, 24 + payload));
  frame[0] = static_cast<char>(frame[0] & 0x0F);
  if (footer) {
    const std::uint32_t crc = crcOf(frame);
    frame.append(reinterpret_cast<const char*>(&crc), sizeof crc);
  }
  return frame;
}

std::string fileContents(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

struct Home {
  Home() {
    std::string folder = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
    folder += "/skelda-fuzz-XXXXXX";
    require(::mkdtemp(folder.data()) != nullptr, "a folder can be made");
    ::setenv("HOME", folder.c_str(), 1);
    ::setenv("XDG_DATA_HOME", folder.c_str(), 1);
    path = folder;
    ::atexit([] { std::filesystem::remove_all(::getenv("HOME")); });
    skelda::platform::Log::setSink({});
    SkeldaWatchStreamSessionRule::sessionRuleWithFlushTriggerMap({}, {}, 5, 10, {})
        ->saveNewSessionIdArchiveFile(*SkeldaStreamEvent::streamEventWithEventName(
            "Lap", "CUSTOM_EVENT", false, false, {}, nullptr, skelda::platform::Date::now()));
  }
  std::filesystem::path path;
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
  require(writer->moduleState() == 3, "the writer is ready");
}

/// What was committed of a log: its readable prefix, closed as a crashed one.
void requireCommited(const std::string& folder, std::string_view log, bool crashed) {
  std::string expected;
  for (std::string_view rest = log;;) {
    const std::string frame = repairedFrame(rest);
    if (frame.empty()) break;
    expected += frame;
    rest.remove_prefix(frame.size());
  }
  const std::filesystem::directory_iterator commited(folder + "/commited");
  require(commited != std::filesystem::directory_iterator(), "the log is committed");
  const std::string actual = fileContents(commited->path());
  require(actual.starts_with(expected), "the readable prefix is kept, in full");
  std::string_view rest = std::string_view(actual).substr(expected.size());
  for (const std::int32_t type : {128, 1}) {
    if (type == 128 && !crashed) continue;
    const std::string frame = repairedFrame(rest);
    require(!frame.empty() && numberAt<std::uint32_t>(frame, 0) >> 8 == std::uint32_t(type),
            "the log is closed as a crashed one");
    rest.remove_prefix(frame.size());
  }
  require(rest.empty(), "nothing follows the flush");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const Home home;
  if (size == 0) return 0;
  const bool crashed = (bytes[0] & 1) != 0;
  const std::string_view log(reinterpret_cast<const char*>(bytes) + 1, size - 1);
  const std::string folder = SkeldaUtil::filePathDirectory();
  std::filesystem::remove_all(folder + "/commited");
  std::ofstream(folder + "/log", std::ios::binary | std::ios::trunc) << log;

  repair(folder, crashed);

  if (log.empty()) {
    require(!std::filesystem::exists(folder + "/commited"), "a log of no bytes is no crash");
  } else {
    requireCommited(folder, log, crashed);
  }
  const std::string current = fileContents(folder + "/log");
  require(current.size() > 1 && repairedFrame(current) == current && current[1] == 2,
          "the new log is a counter frame");
  return 0;
}
