#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Value.h"

namespace skelda::platform {

/// What the two sides say to each other: one JSON object a packet,
///   {"kind": "userInfo", "id": 7, "content": {...}}   queued, to be acknowledged
///   {"kind": "received", "id": 7}                     the acknowledgement
///   {"kind": "message", "content": {...}}             at once, never repeated
struct WCPacket {
  enum class Kind { userInfo, received, message };
  Kind kind = Kind::message;
  std::uint64_t identifier = 0;
  Dictionary content;

  Data encoded() const;
  /// Nothing for bytes that are not such an object.
  static std::optional<WCPacket> decoded(std::string_view bytes);
};

/// Puts packets on a byte stream and takes them off again: four bytes of length, least significant
/// first, then the packet. One thread at a time.
class WCPacketFraming {
 public:
  /// A packet is never longer; a length beyond it, or of 0, is refused before anything is kept.
  static constexpr std::size_t kMaximumLength = std::size_t{1} << 20;

  /// Nothing when the packet is too long to send.
  static std::optional<Data> framed(const Data& packet);

  void append(const void* bytes, std::size_t length) { buffer_.append(bytes, length); }
  /// The next whole packet, if there is one.
  std::optional<Data> next();
  /// A length that cannot be: nothing after it can be understood.
  bool isBroken() const noexcept { return broken_; }

 private:
  Data buffer_;
  std::size_t start_ = 0;
  bool broken_ = false;
};

}  // namespace skelda::platform
