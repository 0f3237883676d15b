#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Analytics/Utils/SkeldaKVStorage.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Tests/Analytics/Streaming/Core/LogWords.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/FaultyFiles.h"

namespace skelda::testing {

/// A home with a writer in it, and its logs in words (see logWords).
class FrameLogWriterFixture : public ::testing::Test {
 protected:
  using Writer = SkeldaStreamFrameLogWriter;

  /// A writer as a new process would have it.
  Writer& makeWriter(
      std::shared_ptr<ISkeldaStreamFileManager> manager = SkeldaStreamFileManager::fileManager()) {
    writer_ = Writer::fileWriterWithCurrentFrameLogFilePath(
        home_.storageFolder(), "log", commitedFolder(), "commited", std::move(manager),
        SkeldaStreamFileHandle::fileHandle(),
        SkeldaStreamMessageSerializer::streamMessageSerializer(),
        SkeldaStreamFrameDeserializer::streamFrameDeserializer(), {1}, {});
    writer_->setRetryDelays(std::chrono::microseconds(10), std::chrono::microseconds(10));
    return *writer_;
  }
  /// Waits until it is ready, however often it has to try.
  void start() {
    const auto previous = std::make_shared<RecordingStage>();
    writer_->registerPreviousStageComponent(previous);
    writer_->writePendingFiles();
    EXPECT_EQ(previous->states(1), std::vector<std::int32_t>{3});
  }
  void startNew() {
    makeWriter();
    start();
  }
  void send(const Message& message) {
    writer_->streamMessage(message);
    settle(*writer_);
  }
  void flush(std::int32_t status) { send(SkeldaStreamFlush::streamFlushWithStatus(status)); }

  std::string logPath() const { return home_.storageFolder() + "/log"; }
  std::string commitedFolder() const { return home_.storageFolder() + "/CommitedFrameLogs"; }
  std::vector<std::string> commitedPaths() const { return logPaths(commitedFolder()); }
  std::string log() const { return logWords(readFile(logPath())); }
  /// The committed logs, oldest first, one text for each.
  std::vector<std::string> commited() const {
    std::vector<std::string> logs;
    for (const auto& path : commitedPaths()) logs.push_back(logWords(readFile(path)));
    return logs;
  }
  /// All logs, the open one behind the last bar.
  std::string allLogs() const {
    std::string logs;
    for (const auto& words : commited()) logs += words + " | ";
    return logs + log();
  }
  std::int64_t counter() const {
    return SkeldaKVStorage::sharedInstance()->integerForKey(std::string(Writer::kFrameCounterKey));
  }
  void setCrashFlag(bool flag) {
    SkeldaKVStorage::sharedInstance()->setBoolean(flag, std::string(Writer::kCrashFlagKey));
  }
  bool crashFlag() const {
    return SkeldaKVStorage::sharedInstance()->booleanForKey(std::string(Writer::kCrashFlagKey));
  }
  static std::string frame(const ISkeldaStreamMessage& message) {
    return SkeldaStreamMessageSerializer().frameFromStreamMessage(message)->string();
  }

  ScopedEnvironment environment_;
  const bool inMemory_ = useMemoryFileSystem();  // Before the home is made.
  AgentHome home_;
  std::shared_ptr<Writer> writer_;

 private:
  /// Some tests start hundreds of processes, each of which waits for the disk a dozen times.
  bool useMemoryFileSystem() {
    const bool present = std::filesystem::exists("/dev/shm");
    if (present) environment_.set("TMPDIR", "/dev/shm");
    return present;
  }
};

}  // namespace skelda::testing
