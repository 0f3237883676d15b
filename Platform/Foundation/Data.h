#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace skelda::platform {

/// An owned run of bytes. Text that is already encoded moves in and out without a copy.
/// "No data" is an empty std::optional<Data>; an empty Data has length 0.
/// A value: safe to read from many threads, to change from one.
class Data {
 public:
  Data() = default;
  /// A copy of the bytes, but for a string that is moved in.
  explicit Data(std::string bytes) : bytes_(std::move(bytes)) {}
  Data(const void* bytes, std::size_t length) : bytes_(static_cast<const char*>(bytes), length) {}

  /// What is in it; valid until it changes.
  std::size_t length() const noexcept { return bytes_.size(); }
  bool empty() const noexcept { return bytes_.empty(); }
  const std::uint8_t* bytes() const noexcept {
    return reinterpret_cast<const std::uint8_t*>(bytes_.data());
  }
  std::string_view view() const noexcept { return bytes_; }

  /// As a string's.
  void append(const void* bytes, std::size_t length) {
    bytes_.append(static_cast<const char*>(bytes), length);
  }
  void append(std::string_view bytes) { bytes_.append(bytes); }
  void reserve(std::size_t capacity) { bytes_.reserve(capacity); }
  void clear() noexcept { bytes_.clear(); }
  /// Removes the first `length` bytes; `length` is at most length().
  void removePrefix(std::size_t length) { bytes_.erase(0, length); }

  /// The bytes as a string, to read, to fill in place, or to move away.
  const std::string& string() const& noexcept { return bytes_; }
  std::string& string() & noexcept { return bytes_; }
  std::string string() && noexcept { return std::move(bytes_); }

  /// Byte for byte.
  friend bool operator==(const Data& a, const Data& b) { return a.bytes_ == b.bytes_; }
  friend bool operator!=(const Data& a, const Data& b) { return a.bytes_ != b.bytes_; }

 private:
  std::string bytes_;
};

}  // namespace skelda::platform
