#include "Platform/Foundation/PropertyListScreen.h"

#include <algorithm>
#include <array>
#include <bit>
#include <optional>
#include <vector>

#include "Platform/Foundation/TextCoding.h"

namespace skelda::platform {
namespace {

using Limits = PropertyListLimits;

// ---- XML

constexpr std::array<std::string_view, 11> kElements = {
    "plist", "dict", "array", "key", "string", "integer", "real", "true", "false", "date", "data"};

class XMLScreen {
 public:
  explicit XMLScreen(std::string_view text) : text_(text) {}

  bool passes() {
    while (true) {
      const std::size_t open = text_.find('<');
      if (open == std::string_view::npos) return path_.empty() && rootSeen_;
      text_.remove_prefix(open + 1);
      if (!passMarkup()) return false;
    }
  }

 private:
  /// Steps behind the next `mark`, handing out what stands before it.
  std::optional<std::string_view> upTo(std::string_view mark) {
    const std::size_t found = text_.find(mark);
    if (found == std::string_view::npos) return std::nullopt;
    const std::string_view before = text_.substr(0, found);
    text_.remove_prefix(found + mark.size());
    return before;
  }

  bool starts(std::string_view mark) {
    if (!text_.starts_with(mark)) return false;
    text_.remove_prefix(mark.size());
    return true;
  }

  bool passMarkup() {
    if (starts("!--")) return upTo("-->").has_value();
    if (starts("![CDATA[")) return !path_.empty() && upTo("]]>").has_value();
    if (starts("?")) return upTo("?>").has_value();
    if (starts("!DOCTYPE")) {
      const auto type = upTo(">");
      return path_.empty() && type && type->find_first_of("[<") == std::string_view::npos;
    }
    const auto tag = upTo(">");
    return tag && passTag(*tag);
  }

  bool passTag(std::string_view tag) {
    if (tag.starts_with('/')) {
      if (path_.empty() || trimmed(tag.substr(1)) != path_.back()) return false;
      path_.pop_back();
      return true;
    }
    const bool empty = tag.ends_with('/');
    if (empty) tag.remove_suffix(1);
    const std::size_t nameEnd = std::min(tag.find_first_of(kBlanks), tag.size());
    const std::string_view name = tag.substr(0, nameEnd);
    if (std::find(kElements.begin(), kElements.end(), name) == kElements.end()) return false;
    const std::string_view rest = trimmed(tag.substr(nameEnd));
    if (rest.find('<') != std::string_view::npos || (!rest.empty() && name != "plist"))
      return false;
    if (path_.empty() && rootSeen_) return false;
    rootSeen_ = true;
    if (empty) return true;
    path_.push_back(name);
    return path_.size() <= Limits::kMaximumDepth;
  }

  static constexpr std::string_view kBlanks = " \t\r\n";

  static std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
  }

  std::string_view text_;
  std::vector<std::string_view> path_;
  bool rootSeen_ = false;
};

// ---- Binary

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;

class BinaryScreen {
 public:
  explicit BinaryScreen(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  bool passes() {
    if (!readTrailer()) return false;
    visits_.resize(count_);
    const Visit* const root = visit(root_, 1);
    return root != nullptr && root->cost <= Limits::kMaximumCost;
  }

 private:
  enum class Progress : std::uint8_t { none, open, done };
  struct Visit {
    Progress progress = Progress::none;
    bool isText = false;
    std::size_t height = 0;
    std::uint64_t cost = 0;
  };
  /// An object's head: its type, its count of bytes or elements, and where its content begins.
  struct Head {
    unsigned type = 0;
    std::uint64_t length = 0;
    std::size_t content = 0;
  };

  /// The big-endian number at `at`; the caller has looked that it lies within the bytes.
  std::uint64_t number(std::uint64_t at, std::size_t width) const {
    std::uint64_t value = 0;
    for (const std::uint8_t byte : bytes_.subspan(static_cast<std::size_t>(at), width)) {
      value = value << 8 | byte;
    }
    return value;
  }

  bool readTrailer() {
    if (bytes_.size() < kHeaderSize + kTrailerSize) return false;
    const std::size_t trailer = bytes_.size() - kTrailerSize;
    offsetSize_ = bytes_[trailer + 6];
    referenceSize_ = bytes_[trailer + 7];
    const std::uint64_t count = number(trailer + 8, 8);
    const std::uint64_t root = number(trailer + 16, 8);
    const std::uint64_t table = number(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8)
      return false;
    if (table < kHeaderSize || table >= trailer) return false;
    if (count == 0 || count > (trailer - table) / offsetSize_ || root >= count) return false;
    count_ = static_cast<std::size_t>(count);
    root_ = root;
    table_ = static_cast<std::size_t>(table);
    return true;
  }

  std::optional<Head> head(std::size_t at) const {
    const unsigned marker = bytes_[at];
    Head head{marker >> 4, marker & 15, at + 1};
    const bool counted = head.type >= 4 && head.type != 8;
    if (!counted || head.length != 15) return head;
    // The count stands behind the marker, as an integer object.
    if (head.content >= table_ || bytes_[head.content] >> 4 != 1) return std::nullopt;
    const unsigned power = bytes_[head.content] & 15U;
    if (power > 3) return std::nullopt;
    const std::size_t width = std::size_t{1} << power;
    if (table_ - head.content - 1 < width) return std::nullopt;
    head.length = number(head.content + 1, width);
    head.content += 1 + width;
    return head;
  }

  const Visit* visit(std::uint64_t index, std::size_t depth) {
    if (index >= count_ || depth > Limits::kMaximumDepth) return nullptr;
    Visit& visit = visits_[static_cast<std::size_t>(index)];
    if (visit.progress == Progress::open) return nullptr;
    if (visit.progress == Progress::done)
      return depth + visit.height <= Limits::kMaximumDepth ? &visit : nullptr;
    visit.progress = Progress::open;
    visit.cost = Limits::kNodeCost;
    const std::uint64_t at = number(table_ + index * offsetSize_, offsetSize_);
    if (at < kHeaderSize || at >= table_) return nullptr;
    const std::optional<Head> head = this->head(static_cast<std::size_t>(at));
    if (!head || !passContent(*head, visit, depth)) return nullptr;
    visit.progress = Progress::done;
    return &visit;
  }

  bool fits(const Head& head, std::uint64_t unit) const {
    return head.content <= table_ && head.length <= (table_ - head.content) / unit;
  }

  bool passContent(const Head& head, Visit& visit, std::size_t depth) {
    switch (head.type) {
      case 0x0:
        return head.length == 0 || head.length == 8 || head.length == 9;
      case 0x1:
        return head.length <= 4 && fitsPower(head);
      case 0x2:
        return (head.length == 2 || head.length == 3) && fitsPower(head);
      case 0x3:
        return head.length == 3 && fitsPower(head) && isUsableDate(head.content);
      case 0x4:
        visit.cost += head.length;
        return fits(head, 1);
      case 0x5:
        return fits(head, 1) && passText(head, 1, visit);
      case 0x6:
        return fits(head, 2) && passText(head, 2, visit);
      case 0xA:
        return fits(head, referenceSize_) && passReferences(head, head.length, 0, visit, depth);
      case 0xD:
        return fits(head, 2 * referenceSize_) &&
               passReferences(head, head.length * 2, head.length, visit, depth);
      default:
        return false;
    }
  }

  /// Text with a NUL is none: the library takes a key with one for a failed assertion.
  bool passText(const Head& head, std::size_t unit, Visit& visit) const {
    visit.isText = true;
    // As UTF-8, two bytes of UTF-16 become three at most.
    visit.cost += head.length * 3;
    for (std::size_t i = 0; i < head.length; ++i)
      if (number(head.content + i * unit, unit) == 0) return false;
    return true;
  }

  bool fitsPower(const Head& head) const {
    return head.content <= table_ && table_ - head.content >= (std::size_t{1} << head.length);
  }

  /// Dates are held as 32-bit seconds on the way.
  bool isUsableDate(std::size_t at) const {
    const double seconds = std::bit_cast<double>(number(at, 8));
    return seconds > -2147483648.0 && seconds < 2147483647.0;
  }

  /// Follows `total` references, of which the first `keys` must stand for text.
  bool passReferences(const Head& head, std::uint64_t total, std::uint64_t keys, Visit& visit,
                      std::size_t depth) {
    for (std::uint64_t i = 0; i < total; ++i) {
      const std::uint64_t reference = number(head.content + i * referenceSize_, referenceSize_);
      const Visit* const child = this->visit(reference, depth + 1);
      if (child == nullptr || (i < keys && !child->isText)) return false;
      visit.height = std::max(visit.height, child->height + 1);
      visit.cost += child->cost;
      if (visit.cost > Limits::kMaximumCost) return false;
    }
    return true;
  }

  std::span<const std::uint8_t> bytes_;
  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::size_t count_ = 0;
  std::uint64_t root_ = 0;
  std::size_t table_ = 0;
  std::vector<Visit> visits_;
};

}  // namespace

bool isHarmlessXMLPropertyList(std::string_view text) {
  return text.size() <= Limits::kMaximumBytes && text.find('\0') == std::string_view::npos &&
         isValidUTF8(text) && XMLScreen(text).passes();
}

bool isHarmlessBinaryPropertyList(std::span<const std::uint8_t> bytes) {
  return bytes.size() <= Limits::kMaximumBytes && BinaryScreen(bytes).passes();
}

}  // namespace skelda::platform
