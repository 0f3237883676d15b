#pragma once

#include <memory>

#include "Analytics/Utils/ISkeldaStreamFileHandle.h"
#include "Platform/Foundation/FileHandle.h"
#include "Platform/Foundation/Object.h"

/// One open platform file of the stream. The operations of all instances are serialised by one
/// recursive lock of the process.
class SkeldaStreamFileHandle : public ISkeldaStreamFileHandle, public platform::Object {
 public:
  /// A closed handle.
  static std::shared_ptr<SkeldaStreamFileHandle> fileHandle();
  std::string_view className() const noexcept override { return "SkeldaStreamFileHandle"; }

  /// Where the open operations get their platform handle from; a subclass may put another in its
  /// place. Null where there is no file.
  virtual std::shared_ptr<platform::FileHandle> fileHandleForWritingAtPath(
      const std::string& path) const;
  virtual std::shared_ptr<platform::FileHandle> fileHandleForReadingAtPath(
      const std::string& path) const;

  bool isOpenFile(const Path& path) override;
  void openForWritingFile(const Path& path, platform::ErrorRef* error) override;
  void openForReadingFile(const Path& path, platform::ErrorRef* error) override;
  std::optional<platform::Data> readDataOfLength(std::size_t length,
                                                 platform::ErrorRef* error) override;
  std::optional<platform::Data> availableDataWithError(platform::ErrorRef* error) override;
  std::optional<platform::Data> contentsOfFile(const Path& path,
                                               platform::ErrorRef* error) override;
  bool seekToEndOfFile() override;
  void writeData(const std::optional<platform::Data>& data, platform::ErrorRef* error) override;
  void closeFile() override;
  bool truncateFileToZeroBytes() override;
  bool synchronizeFile() override;

  /// The path that was last opened; kept when the file is closed.
  Path openFilePath() const;

 private:
  enum class Mode { reading, writing };
  void openFile(const Path& path, Mode mode, std::string_view method, platform::ErrorRef* error);

  std::shared_ptr<platform::FileHandle> fileHandle_;
  Path openFilePath_;
};
