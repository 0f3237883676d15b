#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace skelda::platform {

/// What a property list may be made of before a parser that recurses, and unfolds shared objects,
/// is let near it.
struct PropertyListLimits {
  static constexpr std::size_t kMaximumBytes = std::size_t{1} << 20;
  static constexpr std::size_t kMaximumDepth = 64;
  /// Of the unfolded tree: the bytes of its leaves and kNodeCost for every node.
  static constexpr std::uint64_t kMaximumCost = std::uint64_t{16} << 20;
  static constexpr std::uint64_t kNodeCost = 64;
};

/// Whether `text` is XML of the elements that property lists have, each closed where it must be,
/// within the limits. Stricter than XML: no attributes but the root's, no inner document type.
bool isHarmlessXMLPropertyList(std::string_view text);

/// Whether `bytes` are a binary property list whose reachable objects lie within the bytes, form no
/// circle, and unfold within the limits.
bool isHarmlessBinaryPropertyList(std::span<const std::uint8_t> bytes);

}  // namespace skelda::platform
