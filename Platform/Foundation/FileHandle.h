#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Platform/Foundation/Data.h"

namespace skelda::platform {

/// One open file, closed with its last owner. Failures throw Exception
/// ("NSFileHandleOperationException"). One thread at a time. Virtual for the same reason as
/// FileManager.
class FileHandle {
 public:
  /// Null where the file cannot be opened; never creates one.
  static std::shared_ptr<FileHandle> forReadingAtPath(const std::string& path);
  static std::shared_ptr<FileHandle> forWritingAtPath(const std::string& path);

  /// At most `length` bytes from the current offset; fewer only at the end of the file, which for
  /// the first call is where it ended when it was opened. Allocates
  /// for what the file can still give, never for `length` itself.
  virtual Data readDataOfLength(std::size_t length) = 0;
  virtual Data readDataToEndOfFile() = 0;
  /// From here on each write goes to where the file ends by then: where somebody else has cut it
  /// meanwhile, it leaves no hole.
  virtual void seekToEndOfFile() = 0;
  /// All of it, or an exception with the file as long as it was before.
  virtual void writeData(const Data& data) = 0;
  /// Also moves the offset there.
  virtual void truncateFileAtOffset(std::uint64_t offset) = 0;
  /// fdatasync
  virtual void synchronizeFile() = 0;
  /// Further calls but this one throw.
  virtual void closeFile() = 0;

 protected:
  ~FileHandle() = default;
};

}  // namespace skelda::platform
