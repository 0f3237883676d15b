#pragma once

#include <memory>

#include "Analytics/Utils/ISkeldaStreamFileManager.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/Object.h"

/// The file operations of the stream over the platform's file manager. No state.
class SkeldaStreamFileManager : public ISkeldaStreamFileManager, public platform::Object {
 public:
  static std::shared_ptr<SkeldaStreamFileManager> fileManager();
  std::string_view className() const noexcept override { return "SkeldaStreamFileManager"; }

  /// The platform manager that every operation goes to; a subclass may put another in its place.
  virtual std::shared_ptr<platform::FileManager> defaultFileManager() const;

  bool createIfNotPresentDirectoryAtPath(const Path& path) override;
  bool copyFileFrom(const Path& source, const Path& destination) override;
  bool removeItemAtPath(const Path& path) override;
  bool truncateFileAtPath(const Path& path) override;
  bool createFileAtPath(const Path& path) override;
  bool isFilePresentAtPath(const Path& path) override;
  std::optional<std::vector<std::string>> fileNamesAtPath(
      const Path& path, platform::ErrorRef* error = nullptr) override;
};
