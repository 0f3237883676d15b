#pragma once

#include <cstdint>

#include "Platform/Foundation/Object.h"
#include "Platform/Platform.h"

/// The one kind of change that is reported: entries of the folder came, went or moved.
inline constexpr std::uint32_t kSkeldaNodeChangeWritten = 0;

/// One change of a watched folder. Fixed by the system, and not made by the agent itself.
class SkeldaNodeData : public platform::Object {
 public:
  explicit SkeldaNodeData(std::uint32_t changeType) noexcept : changeType_(changeType) {}
  std::string_view className() const noexcept override { return "SkeldaNodeData"; }
  std::uint32_t changeType() const noexcept { return changeType_; }

 private:
  const std::uint32_t changeType_;
};
