#pragma once

#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Tests/Support/Basics.h"

namespace skelda::testing {

/// A file that is read from memory, whatever its path. The bytes must outlive it.
class MemoryStreamFileHandle final : public SkeldaStreamFileHandle {
 public:
  explicit MemoryStreamFileHandle(std::string_view bytes) : bytes_(bytes) {}

  void openForReadingFile(const Path&, ErrorRef*) override { offset_ = 0; }
  std::optional<Data> readDataOfLength(std::size_t length, ErrorRef*) override {
    const std::string_view piece = bytes_.substr(offset_, length);
    offset_ += piece.size();
    return Data(piece.data(), piece.size());
  }
  void closeFile() override {}

 private:
  std::string_view bytes_;
  std::size_t offset_ = 0;
};

}  // namespace skelda::testing
