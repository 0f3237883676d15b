#include "Platform/Foundation/FileHandle.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include "Platform/Base/Counted.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileDescriptor.h"
#include "Platform/Foundation/StorageReserve.h"

namespace skelda::platform {

namespace {

[[noreturn]] void raise(std::string_view operation, const std::string& path, int error) {
  throw Exception("NSFileHandleOperationException",
                  std::string(operation) + ": " + posixError(error, path)->localizedDescription());
}

/// A file that this process has open. Keeps the offset itself, so that an operation is one system
/// call.
class PosixFileHandle : public FileHandle {
 public:
  PosixFileHandle(FileDescriptor file, std::string path)
      : file_(std::move(file)), path_(std::move(path)) {}

  Data readDataOfLength(std::size_t length) override {
    Data data;
    check("read", file_.read(data.string(), length, static_cast<::off_t>(offset_)));
    offset_ += data.length();
    return data;
  }

  Data readDataToEndOfFile() override {
    return readDataOfLength(std::numeric_limits<std::size_t>::max());
  }

  void seekToEndOfFile() override {
    if (!appends_) check("seek", file_.alwaysAppend());
    appends_ = true;
  }

  void writeData(const Data& data) override {
    cutBack();
    // Where it ends a file is only asked for by what fails.
    const auto before = appends_ ? std::nullopt : std::optional(length("write"));
    std::string_view rest = data.view();
    const auto written = [&] { return data.length() - rest.size(); };
    const int error = withReserve([&] {
      const auto offset = static_cast<::off_t>(offset_ + written());
      return file_.writeRest(rest, appends_ ? FileCalls::kAtEnd : offset);
    });
    if (error != 0) {
      // Half a record would hide everything that is appended after it.
      if (written() > 0) torn_ = Torn{before, written()};
      cutBack();
      raise("write", path_, error);
    }
    offset_ += data.length();
  }

  void truncateFileAtOffset(std::uint64_t offset) override {
    check("truncate", file_.truncate(static_cast<::off_t>(offset)));
    offset_ = offset;
  }

  void synchronizeFile() override { check("synchronize", file_.syncData()); }

  void closeFile() override {
    appends_ = false;
    check("close", file_.close());
  }

 private:
  /// What a failed write has left at the end.
  struct Torn {
    std::optional<std::uint64_t> lengthBefore;
    std::uint64_t written;
  };

  /// What could not be cut off after a failed write is cut off before anything else is written.
  void cutBack() {
    if (!torn_) return;
    const std::uint64_t now = length("write");
    if (!torn_->lengthBefore) torn_->lengthBefore = now - std::min(now, torn_->written);
    // A file that is shorter by now would be made longer.
    if (now > *torn_->lengthBefore) truncateFileAtOffset(*torn_->lengthBefore);
    torn_.reset();
  }
  void check(std::string_view operation, int error) const {
    if (error != 0) raise(operation, path_, error);
  }
  std::uint64_t length(std::string_view operation) const {
    struct ::stat now;
    check(operation, file_.status(now));
    return static_cast<std::uint64_t>(now.st_size);
  }

  FileDescriptor file_;
  std::string path_;
  std::uint64_t offset_ = 0;
  bool appends_ = false;
  std::optional<Torn> torn_;
};

std::shared_ptr<FileHandle> opened(const std::string& path, int flags) {
  int error = 0;
  FileDescriptor file;
  const auto open = [&] {
    file = FileDescriptor::openFile(path, flags, error);
    return error;
  };
  if ((flags == O_WRONLY ? withReserve(open) : open()) != 0) return nullptr;
  return makeCounted<PosixFileHandle>(std::move(file), path);
}

}  // namespace

std::shared_ptr<FileHandle> FileHandle::forReadingAtPath(const std::string& path) {
  return opened(path, O_RDONLY);
}

std::shared_ptr<FileHandle> FileHandle::forWritingAtPath(const std::string& path) {
  return opened(path, O_WRONLY);
}

}  // namespace skelda::platform
