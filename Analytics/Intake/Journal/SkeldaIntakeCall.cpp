#include "Analytics/Intake/Journal/SkeldaIntakeCall.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <string>
#include <utility>

using platform::Value;

namespace {

using ValueKind = Value::Kind;

std::uint64_t folded(std::int64_t number) noexcept {
  return (static_cast<std::uint64_t>(number) << 1U) ^ static_cast<std::uint64_t>(number >> 63);
}

std::int64_t unfolded(std::uint64_t digits) noexcept {
  return static_cast<std::int64_t>((digits >> 1U) ^ (~(digits & 1U) + 1U));
}

constexpr std::size_t digitsOf(std::uint64_t number) noexcept {
  return (static_cast<std::size_t>(std::bit_width(number | 1U)) + 6) / 7;
}

// -- Measuring

/// What has been measured so far; stops counting where a bound is passed, however much follows.
struct Measure {
  std::size_t length = 1;  // the call's kind
  bool tooDeep = false;

  bool goesOn() const noexcept { return !tooDeep && length <= SkeldaIntakeCall::kLongest; }
  void addText(std::size_t size) noexcept { length += digitsOf(size) + size; }

  void add(const Value& value, unsigned level) noexcept {
    ++length;
    switch (value.kind()) {
      case ValueKind::null:
        return;
      case ValueKind::boolean:
        ++length;
        return;
      case ValueKind::integer:
        length += digitsOf(folded(value.integerValue()));
        return;
      case ValueKind::unsignedInteger:
        length += digitsOf(value.unsignedValue());
        return;
      case ValueKind::real:
      case ValueKind::date:
        length += 8;
        return;
      case ValueKind::real32:
        length += 4;
        return;
      case ValueKind::text:
        addText(value.text()->size());
        return;
      case ValueKind::data:
        addText(value.data()->length());
        return;
      case ValueKind::array:
        if (!enters(value.array()->size(), level)) return;
        for (const Value& element : *value.array()) {
          add(element, level + 1);
          if (!goesOn()) return;
        }
        return;
      case ValueKind::dictionary:
        if (!enters(value.dictionary()->size(), level)) return;
        for (const auto& [key, element] : *value.dictionary()) {
          addText(key.size());
          add(element, level + 1);
          if (!goesOn()) return;
        }
        return;
    }
  }

  bool enters(std::size_t count, unsigned level) noexcept {
    length += digitsOf(count);
    if (level >= SkeldaIntakeCall::kDeepest) tooDeep = true;
    return !tooDeep;
  }
};

// -- Writing

struct Writer {
  char* at;

  void byte(std::uint8_t byte) noexcept { *at++ = static_cast<char>(byte); }
  void number(std::uint64_t number) noexcept {
    for (; number > 0x7F; number >>= 7U) byte(static_cast<std::uint8_t>(number | 0x80U));
    byte(static_cast<std::uint8_t>(number));
  }
  void bytes(const void* bytes, std::size_t count) noexcept {
    // Nothing may be copied from nowhere.
    if (count != 0) std::memcpy(at, bytes, count);
    at += count;
  }
  void text(std::string_view text) noexcept {
    number(text.size());
    bytes(text.data(), text.size());
  }
  template <class T>
  void plain(T content) noexcept {
    bytes(&content, sizeof content);
  }

  void add(const Value& value) noexcept {
    byte(static_cast<std::uint8_t>(value.kind()));
    switch (value.kind()) {
      case ValueKind::null:
        return;
      case ValueKind::boolean:
        return byte(*value.boolean() ? 1 : 0);
      case ValueKind::integer:
        return number(folded(value.integerValue()));
      case ValueKind::unsignedInteger:
        return number(value.unsignedValue());
      case ValueKind::real:
        return plain(value.doubleValue());
      case ValueKind::real32:
        return plain(static_cast<float>(value.doubleValue()));
      case ValueKind::text:
        return text(*value.text());
      case ValueKind::data:
        return text(value.data()->view());
      case ValueKind::date:
        return plain(value.date()->microsecondsSince1970().count());
      case ValueKind::array:
        number(value.array()->size());
        for (const Value& element : *value.array()) add(element);
        return;
      case ValueKind::dictionary:
        number(value.dictionary()->size());
        for (const auto& [key, element] : *value.dictionary()) {
          text(key);
          add(element);
        }
        return;
    }
  }
};

// -- Reading

/// Reads what write() wrote, and of anything else says that it failed: no length or count is
/// trusted, since a file may have been tampered with.
struct Reader {
  /// What room is made for in advance, whatever a file says.
  static constexpr std::size_t kTrustedCount = 64;

  std::string_view rest;
  bool failed = false;

  bool has(std::uint64_t count) noexcept {
    failed = failed || rest.size() < count;
    return !failed;
  }
  std::uint8_t byte() noexcept {
    if (!has(1)) return 0;
    const auto first = static_cast<std::uint8_t>(rest.front());
    rest.remove_prefix(1);
    return first;
  }
  std::uint64_t number() noexcept {
    std::uint64_t number = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      const std::uint8_t digit = byte();
      number |= static_cast<std::uint64_t>(digit & 0x7FU) << shift;
      if ((digit & 0x80U) == 0) return number;
    }
    failed = true;
    return 0;
  }
  /// A count of things that take up at least a byte each.
  std::size_t count() noexcept {
    const std::uint64_t count = number();
    return has(count) ? static_cast<std::size_t>(count) : 0;
  }
  std::string text() {
    const std::size_t length = count();
    std::string text(rest.substr(0, length));
    rest.remove_prefix(length);
    return text;
  }
  template <class T>
  T plain() noexcept {
    T content{};
    if (!has(sizeof content)) return content;
    std::memcpy(&content, rest.data(), sizeof content);
    rest.remove_prefix(sizeof content);
    return content;
  }

  Value value(unsigned level) {
    switch (static_cast<ValueKind>(byte())) {
      case ValueKind::null:
        return {};
      case ValueKind::boolean:
        return byte() != 0;
      case ValueKind::integer:
        return unfolded(number());
      case ValueKind::unsignedInteger:
        return number();
      case ValueKind::real:
        return plain<double>();
      case ValueKind::real32:
        return plain<float>();
      case ValueKind::text:
        return text();
      case ValueKind::data:
        return platform::Data(text());
      case ValueKind::date:
        return platform::Date(platform::Date::Microseconds(plain<std::int64_t>()));
      case ValueKind::array:
        return array(level);
      case ValueKind::dictionary:
        return dictionary(level);
    }
    failed = true;
    return {};
  }
  Value array(unsigned level) {
    platform::Array array;
    if (level >= SkeldaIntakeCall::kDeepest) failed = true;
    for (std::size_t left = count(); left > 0 && !failed; --left) array.push_back(value(level + 1));
    return array;
  }
  Value dictionary(unsigned level) {
    std::vector<platform::Dictionary::Entry> entries;
    if (level >= SkeldaIntakeCall::kDeepest) failed = true;
    std::size_t left = count();
    entries.reserve(std::min(left, kTrustedCount));
    for (; left > 0 && !failed; --left) {
      std::string key = text();
      entries.emplace_back(std::move(key), value(level + 1));
    }
    return platform::Dictionary::withEntries(std::move(entries));
  }
};

/// How many values a call of that kind has; nothing where there is no such kind.
std::optional<std::size_t> valueCountOf(SkeldaIntakeCall::Kind kind) noexcept {
  using Kind = SkeldaIntakeCall::Kind;
  switch (kind) {
    case Kind::deletion:
      return 0;
    case Kind::clearProperties:
    case Kind::flagProperties:
    case Kind::optOut:
    case Kind::userId:
      return 1;
    case Kind::event:
    case Kind::startTimedEvent:
    case Kind::endTimedEvent:
    case Kind::setProperties:
    case Kind::setPropertyValue:
    case Kind::addProperties:
    case Kind::removeProperties:
      return 2;
    case Kind::purchase:
    case Kind::consent:
      return 3;
  }
  return std::nullopt;
}

}  // namespace

SkeldaIntakeCall::Size SkeldaIntakeCall::sizeOf(Values values) noexcept {
  Measure measure;
  for (const Value& value : values) {
    measure.add(value, 0);
    if (!measure.goesOn()) break;
  }
  Size size{measure.length, std::nullopt};
  if (measure.length > kLongest) size.refusal = SkeldaRefusal::tooLong;
  if (measure.tooDeep) size.refusal = SkeldaRefusal::tooDeep;
  return size;
}

void SkeldaIntakeCall::write(char* place, Kind kind, Values values) noexcept {
  Writer writer{place};
  writer.byte(static_cast<std::uint8_t>(kind));
  for (const Value& value : values) writer.add(value);
}

std::optional<SkeldaIntakeCall> SkeldaIntakeCall::read(std::string_view bytes) {
  Reader reader{bytes};
  SkeldaIntakeCall call;
  call.kind = static_cast<Kind>(reader.byte());
  const auto count = valueCountOf(call.kind);
  if (!count) return std::nullopt;
  call.values.reserve(*count);
  while (call.values.size() < *count && !reader.failed) call.values.push_back(reader.value(0));
  if (reader.failed || !reader.rest.empty()) return std::nullopt;
  return call;
}
