#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "Analytics/Utils/SkeldaStreamErrorConstants.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Platform/Platform.h"
#include "Tests/Support/FaultyFiles.h"

namespace skelda::testing {

/// The agent's own file manager over a platform that fails as planned (kinds of FaultyFileManager).
class StreamFileManagerOnFaultyPlatform : public SkeldaStreamFileManager {
 public:
  explicit StreamFileManagerOnFaultyPlatform(FaultPlanRef plan)
      : platform_(std::make_shared<FaultyFileManager>(std::move(plan))) {}
  std::shared_ptr<platform::FileManager> defaultFileManager() const override { return platform_; }

 private:
  std::shared_ptr<platform::FileManager> platform_;
};

/// The agent's own file handle over a platform that fails as planned: the kinds of
/// FaultyFileHandle, and "forWritingAtPath" and "forReadingAtPath", which answer null.
class StreamFileHandleOnFaultyPlatform : public SkeldaStreamFileHandle {
 public:
  explicit StreamFileHandleOnFaultyPlatform(FaultPlanRef plan) : plan_(std::move(plan)) {}
  std::shared_ptr<platform::FileHandle> fileHandleForWritingAtPath(
      const std::string& path) const override {
    if (const auto fault = plan_->next("forWritingAtPath")) return failed(*fault);
    return wrapped(SkeldaStreamFileHandle::fileHandleForWritingAtPath(path));
  }
  std::shared_ptr<platform::FileHandle> fileHandleForReadingAtPath(
      const std::string& path) const override {
    if (const auto fault = plan_->next("forReadingAtPath")) return failed(*fault);
    return wrapped(SkeldaStreamFileHandle::fileHandleForReadingAtPath(path));
  }

 private:
  static std::shared_ptr<platform::FileHandle> failed(const Fault& fault) {
    if (fault.raises) throw platform::Exception("NSFileHandleOperationException", "open");
    return nullptr;
  }
  std::shared_ptr<platform::FileHandle> wrapped(
      std::shared_ptr<platform::FileHandle> target) const {
    if (!target) return nullptr;
    return std::make_shared<FaultyFileHandle>(plan_, std::move(target));
  }

  FaultPlanRef plan_;
};

/// Another implementation of the protocol: forwards to the agent's own, and fails as planned. Kinds
/// are the method names of the protocol.
class FaultyStreamFileManager : public virtual ISkeldaStreamFileManager {
 public:
  explicit FaultyStreamFileManager(
      FaultPlanRef plan,
      std::shared_ptr<ISkeldaStreamFileManager> target = SkeldaStreamFileManager::fileManager())
      : plan_(std::move(plan)), target_(std::move(target)) {}

  bool createIfNotPresentDirectoryAtPath(const Path& path) override {
    return !fails("createIfNotPresentDirectoryAtPath") &&
           target_->createIfNotPresentDirectoryAtPath(path);
  }
  bool copyFileFrom(const Path& source, const Path& destination) override {
    return !fails("copyFileFrom") && target_->copyFileFrom(source, destination);
  }
  bool removeItemAtPath(const Path& path) override {
    return !fails("removeItemAtPath") && target_->removeItemAtPath(path);
  }
  bool truncateFileAtPath(const Path& path) override {
    return !fails("truncateFileAtPath") && target_->truncateFileAtPath(path);
  }
  bool createFileAtPath(const Path& path) override {
    return !fails("createFileAtPath") && target_->createFileAtPath(path);
  }
  bool isFilePresentAtPath(const Path& path) override {
    return !fails("isFilePresentAtPath") && target_->isFilePresentAtPath(path);
  }
  std::optional<std::vector<std::string>> fileNamesAtPath(const Path& path,
                                                          platform::ErrorRef* error) override {
    if (const auto fault = plan_->next("fileNamesAtPath")) {
      platform::setError(error, platform::posixError(fault->error, path.value_or("")));
      return std::nullopt;
    }
    return target_->fileNamesAtPath(path, error);
  }

 private:
  bool fails(const char* kind) { return plan_->next(kind).has_value(); }

  FaultPlanRef plan_;
  std::shared_ptr<ISkeldaStreamFileManager> target_;
};

/// Another implementation of the handle protocol: forwards to the agent's own, and fails as
/// planned. A write with a short length leaves that many bytes in the file.
class FaultyStreamFileHandle : public virtual ISkeldaStreamFileHandle {
 public:
  explicit FaultyStreamFileHandle(
      FaultPlanRef plan,
      std::shared_ptr<ISkeldaStreamFileHandle> target = SkeldaStreamFileHandle::fileHandle())
      : plan_(std::move(plan)), target_(std::move(target)) {}

  bool isOpenFile(const Path& path) override { return target_->isOpenFile(path); }
  void openForWritingFile(const Path& path, platform::ErrorRef* error) override {
    if (!fails("openForWritingFile", 5, error)) target_->openForWritingFile(path, error);
  }
  void openForReadingFile(const Path& path, platform::ErrorRef* error) override {
    if (!fails("openForReadingFile", 5, error)) target_->openForReadingFile(path, error);
  }
  std::optional<platform::Data> readDataOfLength(std::size_t length,
                                                 platform::ErrorRef* error) override {
    if (fails("readDataOfLength", 4, error)) return std::nullopt;
    return target_->readDataOfLength(length, error);
  }
  std::optional<platform::Data> availableDataWithError(platform::ErrorRef* error) override {
    if (fails("availableDataWithError", 4, error)) return std::nullopt;
    return target_->availableDataWithError(error);
  }
  bool seekToEndOfFile() override {
    return !fails("seekToEndOfFile", 0, nullptr) && target_->seekToEndOfFile();
  }
  void writeData(const std::optional<platform::Data>& data, platform::ErrorRef* error) override {
    const auto fault = plan_->next("writeData");
    if (!fault) return target_->writeData(data, error);
    if (fault->shortLength && data) {
      target_->writeData(platform::Data(data->string().substr(0, *fault->shortLength)), nullptr);
    }
    platform::setError(error, SkeldaStreamErrorConstants::errorFor(6));
  }
  void closeFile() override {
    plan_->next("closeFile");
    target_->closeFile();
  }
  bool truncateFileToZeroBytes() override {
    return !fails("truncateFileToZeroBytes", 0, nullptr) && target_->truncateFileToZeroBytes();
  }
  bool synchronizeFile() override {
    return !fails("synchronizeFile", 0, nullptr) && target_->synchronizeFile();
  }

 private:
  bool fails(const char* kind, std::uint32_t code, platform::ErrorRef* error) {
    if (!plan_->next(kind)) return false;
    platform::setError(error, SkeldaStreamErrorConstants::errorFor(code));
    return true;
  }

  FaultPlanRef plan_;
  std::shared_ptr<ISkeldaStreamFileHandle> target_;
};

}  // namespace skelda::testing
