#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace skelda::tools {

/// CRC-32 (ISO-HDLC) of bytes that come in pieces. Stands apart from the agent's own, so that the
/// one checks the other.
class Crc32 {
 public:
  void add(std::string_view bytes) noexcept {
    for (const char byte : bytes) {
      state_ = (state_ >> 8) ^ kTable[(state_ ^ static_cast<unsigned char>(byte)) & 0xFF];
    }
  }
  std::uint32_t value() const noexcept { return ~state_; }

 private:
  static constexpr std::array<std::uint32_t, 256> kTable = [] {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
      table[i] = i;
      for (int bit = 0; bit < 8; ++bit) {
        table[i] = (table[i] >> 1) ^ ((table[i] & 1) * 0xEDB88320U);
      }
    }
    return table;
  }();
  std::uint32_t state_ = 0xFFFFFFFFU;
};

}  // namespace skelda::tools
