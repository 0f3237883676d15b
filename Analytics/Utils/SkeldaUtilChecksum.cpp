#include <array>
#include <atomic>

#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"

namespace {

constexpr std::uint32_t kPolynomial = 0xEDB88320;  // of the CRC-32, reflected

constexpr std::array<std::uint32_t, 256> kTable = [] {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < table.size(); ++i) {
    std::uint32_t c = i;
    for (int bit = 0; bit < 8; ++bit) c = (c & 1) != 0 ? (c >> 1) ^ kPolynomial : c >> 1;
    table[i] = c;
  }
  return table;
}();

constinit std::atomic<bool> tableAnnounced{false};

}  // namespace

void SkeldaUtil::generateChecksumTable() {
  // Said at every checksum and whatever the level; readers of the log count on both lines.
  if (tableAnnounced.exchange(true, std::memory_order_relaxed)) {
    SKELDA_LOG(0, "SkeldaSession: CRC table already generated");
  } else {
    SKELDA_LOG(0, "SkeldaSession: generating CRC table");
  }
}

std::int32_t SkeldaUtil::dataChecksum(std::string_view bytes) {
  generateChecksumTable();
  std::uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc = (crc >> 8) ^ kTable[(crc ^ static_cast<unsigned char>(byte)) & 0xFF];
  }
  return static_cast<std::int32_t>(crc ^ 0xFFFFFFFF);
}
