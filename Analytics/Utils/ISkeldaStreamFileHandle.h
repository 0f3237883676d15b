#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Platform.h"

/// One file of the stream, open or closed. Nothing throws. The operations with an error
/// out-parameter set it to null at their begin; null at their end is success. The operations of all
/// handles are serialised.
class ISkeldaStreamFileHandle {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamFileHandle";
  using Path = std::optional<std::string>;

  virtual bool isOpenFile(const Path& path) = 0;
  /// Never creates the file.
  virtual void openForWritingFile(const Path& path, platform::ErrorRef* error) = 0;
  virtual void openForReadingFile(const Path& path, platform::ErrorRef* error) = 0;
  /// At most `length` bytes, which must not be 0; empty data at the end of the file.
  virtual std::optional<platform::Data> readDataOfLength(std::size_t length,
                                                         platform::ErrorRef* error) = 0;
  /// Everything up to the end of the file.
  virtual std::optional<platform::Data> availableDataWithError(platform::ErrorRef* error) = 0;
  /// The three at once: opens the file, takes everything, closes it.
  virtual std::optional<platform::Data> contentsOfFile(const Path& path,
                                                       platform::ErrorRef* error) {
    openForReadingFile(path, error);
    if (*error != nullptr) return std::nullopt;
    auto data = availableDataWithError(error);
    closeFile();
    return data;
  }
  virtual bool seekToEndOfFile() = 0;
  /// All of it, or an error with the file as long as it was before.
  virtual void writeData(const std::optional<platform::Data>& data, platform::ErrorRef* error) = 0;
  virtual void closeFile() = 0;
  virtual bool truncateFileToZeroBytes() = 0;
  /// Forces what was written to storage.
  virtual bool synchronizeFile() = 0;

 protected:
  ~ISkeldaStreamFileHandle() = default;
};
