#pragma once

#include <cstdint>

/// What a flush rule answers for a message.
struct SkeldaStreamFlushResponse {
  std::int32_t flushStatus = 0;     ///< The flush to generate; 0 for none.
  bool flushBeforeMessage = false;  ///< Whether the flush goes before the message or after it.

  friend bool operator==(const SkeldaStreamFlushResponse&,
                         const SkeldaStreamFlushResponse&) = default;
};
