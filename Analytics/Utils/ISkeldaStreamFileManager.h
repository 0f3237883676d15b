#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Foundation/Error.h"
#include "Platform/Platform.h"

/// Whole-file operations of the stream code. Failures are reported by the result and a log line,
/// never thrown. Any thread. A path that is nil is refused, but by isFilePresentAtPath.
class ISkeldaStreamFileManager {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamFileManager";
  using Path = std::optional<std::string>;

  /// True as well where anything, a regular file included, exists at the path.
  virtual bool createIfNotPresentDirectoryAtPath(const Path& path) = 0;
  /// Publishes a whole, synchronised copy. False where the source is missing or the destination
  /// exists.
  virtual bool copyFileFrom(const Path& source, const Path& destination) = 0;
  virtual bool removeItemAtPath(const Path& path) = 0;
  virtual bool truncateFileAtPath(const Path& path) = 0;
  /// An existing file is left as it is, and is a success.
  virtual bool createFileAtPath(const Path& path) = 0;
  virtual bool isFilePresentAtPath(const Path& path) = 0;
  /// Names, not paths.
  virtual std::optional<std::vector<std::string>> fileNamesAtPath(
      const Path& path, platform::ErrorRef* error = nullptr) = 0;

 protected:
  ~ISkeldaStreamFileManager() = default;
};
