#include "Platform/Foundation/Value.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>
#include <iterator>
#include <limits>

#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Foundation/NumberText.h"
#include "Platform/Foundation/TextCoding.h"

namespace skelda::platform {

namespace {

// 2 to the 63rd and 64th: the first doubles past the integer kinds.
constexpr double kSignedEnd = 9223372036854775808.0;
constexpr double kUnsignedEnd = 18446744073709551616.0;

std::int64_t saturatedSigned(double value) {
  if (std::isnan(value)) return 0;
  if (value >= kSignedEnd) return std::numeric_limits<std::int64_t>::max();
  if (value < -kSignedEnd) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(value);
}

std::uint64_t saturatedUnsigned(double value) {
  if (std::isnan(value) || value <= 0) return 0;
  if (value >= kUnsignedEnd) return std::numeric_limits<std::uint64_t>::max();
  return static_cast<std::uint64_t>(value);
}

/// The text behind leading blanks and a sign.
struct Signed {
  std::string_view digits;
  bool negative = false;
};

Signed withoutBlanksAndSign(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
  if (start == std::string_view::npos) return {};
  text.remove_prefix(start);
  const bool negative = text.front() == '-';
  if (negative || text.front() == '+') text.remove_prefix(1);
  return {text, negative};
}

/// The digits that `text` starts with, as a number that stops growing at its greatest.
std::uint64_t leadingDigits(std::string_view text) {
  constexpr std::uint64_t kMaximum = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  return result.ec == std::errc::result_out_of_range ? kMaximum : number;
}

std::int64_t integerOfText(std::string_view text) {
  constexpr auto kMaximum = std::uint64_t{std::numeric_limits<std::int64_t>::max()};
  const Signed number = withoutBlanksAndSign(text);
  const std::uint64_t magnitude = leadingDigits(number.digits);
  if (!number.negative) return static_cast<std::int64_t>(std::min(magnitude, kMaximum));
  if (magnitude > kMaximum) return std::numeric_limits<std::int64_t>::min();
  return -static_cast<std::int64_t>(magnitude);
}

std::uint64_t unsignedOfText(std::string_view text) {
  const Signed number = withoutBlanksAndSign(text);
  return number.negative ? 0 : leadingDigits(number.digits);
}

double doubleOfText(std::string_view text) {
  const Signed number = withoutBlanksAndSign(text);
  const std::string_view digits = number.digits;
  // Words such as "inf" and "nan", which the conversion would take, are not numeric text; neither
  // is a second sign.
  if (digits.empty() ||
      !(digits.front() == '.' || (digits.front() >= '0' && digits.front() <= '9')))
    return 0;
  double value = 0;
  const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (result.ec == std::errc::result_out_of_range) {
    // Too great or too small is not told apart: the exponent's sign tells.
    const std::string_view taken(digits.data(),
                                 static_cast<std::size_t>(result.ptr - digits.data()));
    const std::size_t exponent = taken.find_first_of("eE");
    const bool small = exponent != std::string_view::npos
                           ? taken.substr(exponent + 1).starts_with('-')
                           : taken.find_first_not_of("0.") == std::string_view::npos ||
                                 taken.starts_with("0.") || taken.starts_with('.');
    value = small ? 0 : std::numeric_limits<double>::max();
  }
  return number.negative ? -value : value;
}

bool equalNumbers(std::int64_t a, std::uint64_t b) {
  return a >= 0 && static_cast<std::uint64_t>(a) == b;
}

/// Exact: a double is compared as the whole number that it is, never the number as a double.
bool equalNumbers(std::int64_t a, double b) {
  return b >= -kSignedEnd && b < kSignedEnd && b == std::trunc(b) &&
         a == static_cast<std::int64_t>(b);
}

bool equalNumbers(std::uint64_t a, double b) {
  return b >= 0 && b < kUnsignedEnd && b == std::trunc(b) && a == static_cast<std::uint64_t>(b);
}

bool isReal(Value::Kind kind) {
  return kind == Value::Kind::real || kind == Value::Kind::real32;
}

bool equalNumbers(const Value& a, const Value& b) {
  if (isReal(a.kind()) && isReal(b.kind())) {
    const double x = a.doubleValue();
    const double y = b.doubleValue();
    // A value equals itself, whatever it holds.
    return x == y || (std::isnan(x) && std::isnan(y));
  }
  if (isReal(a.kind())) return equalNumbers(b, a);
  const bool wide = a.kind() == Value::Kind::unsignedInteger;
  if (isReal(b.kind()))
    return wide ? equalNumbers(a.unsignedValue(), b.doubleValue())
                : equalNumbers(a.integerValue(), b.doubleValue());
  if (b.kind() == Value::Kind::unsignedInteger)
    return wide ? a.unsignedValue() == b.unsignedValue()
                : equalNumbers(a.integerValue(), b.unsignedValue());
  return wide ? equalNumbers(b.integerValue(), a.unsignedValue())
              : a.integerValue() == b.integerValue();
}

template <class Real>
std::string describedReal(Real value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  if (value == std::trunc(value) && !(value == 0 && std::signbit(value))) {
    // Whole numbers stand in full, however large.
    char digits[std::numeric_limits<double>::max_exponent10 + 3];
    const auto end =
        std::to_chars(std::begin(digits), std::end(digits), value, std::chars_format::fixed);
    return std::string(digits, end.ptr);
  }
  char text[kNumberTextCapacity];
  std::string_view written(text, static_cast<std::size_t>(writeReal(text, value) - text));
  if (written.ends_with(".0")) written.remove_suffix(2);
  return std::string(written);
}

/// ISO 8601 in UTC, with milliseconds only where there are any: "2024-05-01T12:34:56.789Z".
std::string describedDate(Date date) {
  const std::int64_t microseconds = date.microsecondsSince1970().count();
  std::int64_t seconds = microseconds / 1000000;
  std::int64_t rest = microseconds % 1000000;
  if (rest < 0) {
    rest += 1000000;
    --seconds;
  }
  const auto moment = static_cast<std::time_t>(seconds);
  std::tm parts{};
  char text[64];
  if (gmtime_r(&moment, &parts) == nullptr) return std::to_string(microseconds);
  std::string result(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts));
  if (rest >= 1000) {
    const std::string milliseconds = std::to_string(rest / 1000);
    result += '.' + std::string(3 - milliseconds.size(), '0') + milliseconds;
  }
  return result + 'Z';
}

/// How deep this thread is inside values within values that are being copied or destroyed: past a
/// depth that data of an application hardly has, both go on without the stack.
class Nesting {
 public:
  Nesting() noexcept { ++depth; }
  ~Nesting() { --depth; }
  Nesting(const Nesting&) = delete;
  Nesting& operator=(const Nesting&) = delete;
  bool isDeep() const noexcept { return depth > kDeep; }

 private:
  static constexpr unsigned kDeep = 64;
  static thread_local unsigned depth;
};
thread_local unsigned Nesting::depth = 0;

}  // namespace

Value::Value() noexcept = default;
Value::Value(std::nullptr_t) noexcept {}
Value::Value(double real) noexcept : storage_(std::in_place_index<4>, real) {}
Value::Value(float real) noexcept : storage_(std::in_place_index<5>, real) {}
Value::Value(const char* text) {
  if (text != nullptr) storage_.emplace<6>(text);
}
Value::Value(std::string text) noexcept : storage_(std::in_place_index<6>, std::move(text)) {}
Value::Value(std::string_view text) : storage_(std::in_place_index<6>, text) {}
Value::Value(Data data) noexcept : storage_(std::in_place_index<7>, std::move(data)) {}
Value::Value(Date date) noexcept : storage_(std::in_place_index<8>, date) {}
Value::Value(Array array) noexcept : storage_(std::in_place_index<9>, std::move(array)) {}
Value::Value(Dictionary dictionary) noexcept
    : storage_(std::in_place_index<10>, std::move(dictionary)) {}
Value::Value(std::initializer_list<DictionaryEntry> entries)
    : storage_(std::in_place_index<10>, entries) {}

Value::Value(const Value& other) : storage_(copyOf(other)) {}
Value::Value(Value&&) noexcept = default;
Value& Value::operator=(const Value& other) {
  return *this = Value(other);
}
Value& Value::operator=(Value&&) noexcept = default;
Value::~Value() {
  if (!isContainer()) return;
  const Nesting nesting;
  try {
    if (nesting.isDeep()) takeApart();
  } catch (...) {
    // Without memory for a list of what is left, it ends as it nests.
  }
  storage_.emplace<0>();
}

Value::Storage Value::copyOf(const Value& source) {
  if (!source.isContainer()) return source.storage_;
  const Nesting nesting;
  if (!nesting.isDeep()) return source.storage_;
  Value copy;
  copy.copyWithoutRecursion(source);
  return std::move(copy.storage_);
}

void Value::copyWithoutRecursion(const Value& source) {
  std::vector<std::pair<const Value*, Value*>> left{{&source, this}};
  const auto copy = [&left](const Value& from, Value& to) {
    if (from.isContainer()) {
      left.emplace_back(&from, &to);
    } else {
      to.storage_ = from.storage_;
    }
  };
  while (!left.empty()) {
    const auto [from, to] = left.back();
    left.pop_back();
    if (const Array* const array = from->array()) {
      Array& made = to->storage_.emplace<9>(array->size());
      for (std::size_t i = 0; i < made.size(); ++i) copy((*array)[i], made[i]);
      continue;
    }
    const auto& entries = from->dictionary()->entries_;
    auto& made = to->storage_.emplace<10>().entries_;
    made.resize(entries.size());
    for (std::size_t i = 0; i < made.size(); ++i) {
      made[i].first = entries[i].first;
      copy(entries[i].second, made[i].second);
    }
  }
}

/// Moves what nests inside to where it ends side by side.
void Value::takeApart() {
  std::vector<Value> left;
  const auto take = [&left](Value& value) {
    if (Array* const array = value.array()) {
      for (Value& element : *array)
        if (element.isContainer()) left.push_back(std::move(element));
    } else if (Dictionary* const dictionary = value.dictionary()) {
      for (auto& entry : dictionary->entries_)
        if (entry.second.isContainer()) left.push_back(std::move(entry.second));
    }
  };
  take(*this);
  while (!left.empty()) {
    Value last = std::move(left.back());
    left.pop_back();
    take(last);
  }
}

bool Value::isNumber() const noexcept {
  return kind() >= Kind::boolean && kind() <= Kind::real32;
}

std::int64_t Value::integerValue() const noexcept {
  switch (kind()) {
    case Kind::boolean:
      return std::get<1>(storage_) ? 1 : 0;
    case Kind::integer:
      return std::get<2>(storage_);
    case Kind::unsignedInteger:
      return static_cast<std::int64_t>(
          std::min(std::get<3>(storage_), std::uint64_t{std::numeric_limits<std::int64_t>::max()}));
    case Kind::real:
    case Kind::real32:
      return saturatedSigned(doubleValue());
    case Kind::text:
      return integerOfText(std::get<6>(storage_));
    default:
      return 0;
  }
}

std::uint64_t Value::unsignedValue() const noexcept {
  switch (kind()) {
    case Kind::unsignedInteger:
      return std::get<3>(storage_);
    case Kind::real:
    case Kind::real32:
      return saturatedUnsigned(doubleValue());
    case Kind::text:
      return unsignedOfText(std::get<6>(storage_));
    default:
      return static_cast<std::uint64_t>(std::max(integerValue(), std::int64_t{0}));
  }
}

double Value::doubleValue() const noexcept {
  switch (kind()) {
    case Kind::unsignedInteger:
      return static_cast<double>(std::get<3>(storage_));
    case Kind::real:
      return std::get<4>(storage_);
    case Kind::real32:
      return static_cast<double>(std::get<5>(storage_));
    case Kind::text:
      return doubleOfText(std::get<6>(storage_));
    default:
      return static_cast<double>(integerValue());
  }
}

bool Value::boolValue() const noexcept {
  switch (kind()) {
    case Kind::boolean:
      return std::get<1>(storage_);
    case Kind::integer:
      return std::get<2>(storage_) != 0;
    case Kind::unsignedInteger:
      return std::get<3>(storage_) != 0;
    case Kind::real:
    case Kind::real32:
      return doubleValue() != 0;
    default:
      return false;
  }
}

std::string Value::description() const {
  switch (kind()) {
    case Kind::null:
      return "(null)";
    case Kind::boolean:
      return std::get<1>(storage_) ? "1" : "0";
    case Kind::integer:
      return std::to_string(std::get<2>(storage_));
    case Kind::unsignedInteger:
      return std::to_string(std::get<3>(storage_));
    case Kind::real:
      return describedReal(std::get<4>(storage_));
    case Kind::real32:
      return describedReal(std::get<5>(storage_));
    case Kind::text:
      return std::get<6>(storage_);
    case Kind::data:
      return base64Encoded(std::get<7>(storage_).view());
    case Kind::date:
      return describedDate(std::get<8>(storage_));
    case Kind::array:
    case Kind::dictionary:
      return jsonText(*this);
  }
  return {};
}

bool operator==(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber()) return equalNumbers(a, b);
  return a.storage_ == b.storage_;
}

}  // namespace skelda::platform
