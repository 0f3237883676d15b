#pragma once

#include "Analytics/Utils/ISkeldaStreamFileHandle.h"
#include "Tests/Support/Basics.h"

namespace skelda::testing {

/// A file that is read from memory, whatever its path. The bytes must outlive it.
class MemoryStreamFileHandle final : public ISkeldaStreamFileHandle {
 public:
  explicit MemoryStreamFileHandle(std::string_view bytes) : bytes_(bytes) {}

  bool isOpenFile(const Path&) override { return true; }
  void openForWritingFile(const Path&, ErrorRef*) override {}
  void openForReadingFile(const Path&, ErrorRef*) override { offset_ = 0; }
  std::optional<Data> readDataOfLength(std::size_t length, ErrorRef*) override {
    const std::string_view piece = bytes_.substr(offset_, length);
    offset_ += piece.size();
    return Data(piece.data(), piece.size());
  }
  std::optional<Data> availableDataWithError(ErrorRef* error) override {
    return readDataOfLength(bytes_.size(), error);
  }
  bool seekToEndOfFile() override { return false; }
  void writeData(const std::optional<Data>&, ErrorRef*) override {}
  void closeFile() override {}
  bool truncateFileToZeroBytes() override { return false; }
  bool synchronizeFile() override { return false; }

 private:
  std::string_view bytes_;
  std::size_t offset_ = 0;
};

}  // namespace skelda::testing
