#include "Platform/Foundation/PropertyList.h"

#include <locale.h>
#include <plist/plist.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <string_view>
#include <vector>

#include "Platform/Base/Counted.h"
#include "Platform/Foundation/PropertyListScreen.h"
#include "Platform/Foundation/TextCoding.h"

namespace skelda::platform {
namespace {

constexpr std::int64_t kSecondsFrom1970To2001 = 978307200;

struct FreePlist {
  void operator()(void* node) const { plist_free(node); }
};
using PlistRef = std::unique_ptr<void, FreePlist>;

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};
using MemoryRef = std::unique_ptr<void, FreeMemory>;

/// Numbers in property lists have a point whatever locale the host has chosen: this thread reads
/// them in the "C" locale for as long as the scope lasts.
class PlainLocaleScope {
 public:
  PlainLocaleScope() : before_(::uselocale(plain())) {}
  ~PlainLocaleScope() { ::uselocale(before_); }
  PlainLocaleScope(const PlainLocaleScope&) = delete;
  PlainLocaleScope& operator=(const PlainLocaleScope&) = delete;

 private:
  static locale_t plain() {
    static const locale_t locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
  }
  locale_t before_;
};

std::optional<Value> valueOf(plist_t node);

/// The library keeps a negative integer as its two's complement and does not say so; its XML does.
bool isNegative(plist_t node) {
  char* text = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(node, &text, &length);
  const MemoryRef owner(text);
  return text != nullptr &&
         std::string_view(text, static_cast<std::size_t>(length)).find("<integer>-") !=
             std::string::npos;
}

Value integerOf(plist_t node) {
  std::uint64_t value = 0;
  plist_get_uint_val(node, &value);
  const bool fits = value <= std::uint64_t{std::numeric_limits<std::int64_t>::max()};
  if (fits || isNegative(node)) return static_cast<std::int64_t>(value);
  return value;
}

std::optional<Value> dateOf(plist_t node) {
  std::int32_t seconds = 0;
  std::int32_t microseconds = 0;
  plist_get_date_val(node, &seconds, &microseconds);
  // What a date outside the range of the library's 32-bit seconds comes out as.
  if (seconds == std::numeric_limits<std::int32_t>::min() ||
      seconds == std::numeric_limits<std::int32_t>::max())
    return std::nullopt;
  // The fraction comes without the sign of the seconds.
  if (seconds < 0) microseconds = -microseconds;
  return Value(
      Date(Date::Microseconds((seconds + kSecondsFrom1970To2001) * 1000000 + microseconds)));
}

std::optional<Value> textOf(plist_t node) {
  std::uint64_t length = 0;
  const char* const text = plist_get_string_ptr(node, &length);
  if (text == nullptr) return std::nullopt;
  std::string_view view(text, static_cast<std::size_t>(length));
  if (!isValidUTF8(view)) return std::nullopt;
  return Value(view);
}

Value dataOf(plist_t node) {
  std::uint64_t length = 0;
  const char* const bytes = plist_get_data_ptr(node, &length);
  return bytes != nullptr ? Data(bytes, static_cast<std::size_t>(length)) : Data();
}

std::optional<Value> arrayOf(plist_t node) {
  Array array;
  array.reserve(plist_array_get_size(node));
  plist_array_iter iterator = nullptr;
  plist_array_new_iter(node, &iterator);
  const MemoryRef iteratorOwner(iterator);
  while (true) {
    plist_t item = nullptr;
    plist_array_next_item(node, iterator, &item);
    if (item == nullptr) return Value(std::move(array));
    std::optional<Value> element = valueOf(item);
    if (!element) return std::nullopt;
    array.push_back(std::move(*element));
  }
}

std::optional<Value> dictionaryOf(plist_t node) {
  std::vector<Dictionary::Entry> entries;
  entries.reserve(plist_dict_get_size(node));
  plist_dict_iter iterator = nullptr;
  plist_dict_new_iter(node, &iterator);
  const MemoryRef iteratorOwner(iterator);
  while (true) {
    char* key = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(node, iterator, &key, &item);
    const MemoryRef keyOwner(key);
    // A binary list may repeat a key.
    if (item == nullptr) return Value(Dictionary::withEntries(std::move(entries)));
    std::optional<Value> value = valueOf(item);
    if (key == nullptr || !isValidUTF8(key) || !value) return std::nullopt;
    entries.emplace_back(key, std::move(*value));
  }
}

std::optional<Value> valueOf(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return Value(value != 0);
    }
    case PLIST_UINT:
      return integerOf(node);
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return Value(value);
    }
    case PLIST_STRING:
      return textOf(node);
    case PLIST_DATA:
      return dataOf(node);
    case PLIST_DATE:
      return dateOf(node);
    case PLIST_ARRAY:
      return arrayOf(node);
    case PLIST_DICT:
      return dictionaryOf(node);
    default:
      // References of another kind of archive have no meaning here.
      return std::nullopt;
  }
}

PlistRef parsed(std::string_view bytes) {
  plist_t root = nullptr;
  const auto length = static_cast<std::uint32_t>(bytes.size());
  if (bytes.starts_with("bplist00")) {
    if (!isHarmlessBinaryPropertyList(
            {reinterpret_cast<const std::uint8_t*>(bytes.data()), length}))
      return nullptr;
    plist_from_bin(bytes.data(), length, &root);
  } else {
    if (!isHarmlessXMLPropertyList(bytes)) return nullptr;
    plist_from_xml(bytes.data(), length, &root);
  }
  return PlistRef(root);
}

}  // namespace

std::optional<Value> readPropertyList(const Data& data, ErrorRef* error) {
  constexpr std::int64_t kReadCorrupt = 3840;
  const char* problem = "The property list is longer than 1 MiB.";
  if (data.length() <= PropertyListLimits::kMaximumBytes) {
    const PlainLocaleScope plainLocale;
    const PlistRef root = parsed(data.view());
    std::optional<Value> value = root != nullptr ? valueOf(root.get()) : std::nullopt;
    if (value) return value;
    problem = "The property list cannot be read.";
  }
  setError(error, makeCounted<const Error>(cocoaErrorDomain(), kReadCorrupt,
                                           Value{{"NSLocalizedDescription", problem}}));
  return std::nullopt;
}

}  // namespace skelda::platform
