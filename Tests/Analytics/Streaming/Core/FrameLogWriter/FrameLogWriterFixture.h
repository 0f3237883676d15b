#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Tests/Analytics/Streaming/Core/LogWords.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/FaultyStreamFiles.h"

namespace skelda::testing {

/// A home with a writer in it, and its logs in words (see logWords).
class FrameLogWriterFixture : public ::testing::Test {
 protected:
  using Writer = SkeldaStreamFrameLogWriter;

  /// A writer as a new process would have it.
  Writer& makeWriter(std::shared_ptr<ISkeldaStreamFileManager> manager = nullptr,
                     std::shared_ptr<ISkeldaStreamFileHandle> handle = nullptr) {
    if (!manager) manager = SkeldaStreamFileManager::fileManager();
    if (!handle) handle = SkeldaStreamFileHandle::fileHandle();
    writer_ = Writer::fileWriterWithCurrentFrameLogFilePath(
        home_.storageFolder(), "log", commitedFolder(), "commited", manager, handle,
        SkeldaStreamMessageSerializer::streamMessageSerializer(),
        SkeldaStreamFrameDeserializer::streamFrameDeserializer(), {1}, {});
    writer_->setFirstRetryDelay(std::chrono::microseconds(10));
    return *writer_;
  }
  void start() {
    writer_->writePendingFiles();
    settle(*writer_);
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
