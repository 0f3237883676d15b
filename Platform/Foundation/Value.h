#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

// Installed headers name one another from where they lie, and are C++17: see
// Library/CMakeLists.txt.
#include "../Base/Export.h"
#include "Data.h"
#include "Date.h"

namespace skelda::platform {

class Value;
struct DictionaryEntry;

/// An ordered list of values.
using Array = std::vector<Value>;

/// Text keys to values, in order of insertion; a key stands once.
/// Look-up is linear: the dictionaries of this system are short.
class SKELDA_EXPORT Dictionary {
 public:
  /// A key and its value.
  using Entry = std::pair<std::string, Value>;
  using const_iterator = std::vector<Entry>::const_iterator;

  /// Empty, or of {"key", value} pairs.
  Dictionary();
  Dictionary(std::initializer_list<DictionaryEntry> entries);
  /// Of many entries, with keys that may repeat: the last value of a key stands in the place of the
  /// first. Costs no square of their number, so that what was read may be hostile.
  static Dictionary withEntries(std::vector<Entry> entries);
  Dictionary(const Dictionary&);
  Dictionary(Dictionary&&) noexcept;
  Dictionary& operator=(const Dictionary&);
  Dictionary& operator=(Dictionary&&) noexcept;
  ~Dictionary();

  /// As a container's.
  std::size_t size() const noexcept;
  bool empty() const noexcept;
  void reserve(std::size_t count);
  /// The value under `key`, or null. Valid until the dictionary changes.
  const Value* find(std::string_view key) const noexcept;
  bool contains(std::string_view key) const noexcept { return find(key) != nullptr; }
  /// Stores `value` under `key`; an existing key keeps its place.
  void set(std::string key, Value value);
  /// Appends an entry whose key the caller knows to be new. No look-up.
  void append(std::string key, Value value);
  bool erase(std::string_view key);

  /// In order of insertion.
  const_iterator begin() const noexcept;
  const_iterator end() const noexcept;
  /// The entries, moved away: what follows is an empty dictionary.
  std::vector<Entry> takeEntries();

  /// Same keys with equal values, in any order.
  friend SKELDA_EXPORT bool operator==(const Dictionary&, const Dictionary&);
  friend bool operator!=(const Dictionary& a, const Dictionary& b) { return !(a == b); }

 private:
  friend class Value;
  std::vector<Entry> entries_;
};

/// The one dynamic type: null, boolean, signed and unsigned 64-bit integer, double, 32-bit float,
/// text (UTF-8 is not checked here), bytes, date, array, dictionary. A value: copies are deep, and
/// neither a copy nor an end takes more of the stack the deeper it nests.
/// Braces make dictionaries: Value v{{"lap", 3}, {"pace", "5:10"}}; lists are spelled
/// Array{1, 2, 3}.
class SKELDA_EXPORT Value {
 public:
  /// What it may hold, in the order in which it is stored.
  enum class Kind : std::uint8_t {
    null,
    boolean,
    integer,
    unsignedInteger,
    real,
    real32,
    text,
    data,
    date,
    array,
    dictionary
  };

  /// The null value.
  Value() noexcept;
  Value(std::nullptr_t) noexcept;
  /// A boolean or a whole number, of its own kind.
  template <class T, std::enable_if_t<std::is_integral_v<T>, int> = 0>
  Value(T number) noexcept : storage_(std::in_place_type<Whole<T>>, Whole<T>{number}) {}
  Value(double real) noexcept;
  Value(float real) noexcept;
  /// A null pointer makes the null value.
  Value(const char* text);
  Value(std::string text) noexcept;
  Value(std::string_view text);
  Value(Data data) noexcept;
  Value(Date date) noexcept;
  Value(Array array) noexcept;
  Value(Dictionary dictionary) noexcept;
  Value(std::initializer_list<DictionaryEntry> entries);

  /// As a value.
  Value(const Value&);
  Value(Value&&) noexcept;
  Value& operator=(const Value&);
  Value& operator=(Value&&) noexcept;
  ~Value();

  /// What it holds.
  Kind kind() const noexcept { return static_cast<Kind>(storage_.index()); }
  bool isNull() const noexcept { return kind() == Kind::null; }
  /// A boolean, an integer or a real number, as the platform's number objects have it.
  bool isNumber() const noexcept;

  /// The content when the value is of that very kind, else null.
  const bool* boolean() const noexcept { return std::get_if<1>(&storage_); }
  const std::string* text() const noexcept { return std::get_if<6>(&storage_); }
  const Data* data() const noexcept { return std::get_if<7>(&storage_); }
  const Date* date() const noexcept { return std::get_if<8>(&storage_); }
  const Array* array() const noexcept { return std::get_if<9>(&storage_); }
  const Dictionary* dictionary() const noexcept { return std::get_if<10>(&storage_); }
  std::string* text() noexcept { return std::get_if<6>(&storage_); }
  Array* array() noexcept { return std::get_if<9>(&storage_); }
  Dictionary* dictionary() noexcept { return std::get_if<10>(&storage_); }

  /// Conversions of numbers and of numeric text, saturating; 0 for what is neither.
  std::int64_t integerValue() const noexcept;
  std::uint64_t unsignedValue() const noexcept;
  double doubleValue() const noexcept;
  /// True for a number that is not 0; for text, false.
  bool boolValue() const noexcept;

  /// The "%@" of the value: text as it is, whole numbers without a decimal point, other numbers as
  /// the shortest text that reads back the same at their own width, booleans 1 and 0, bytes as
  /// base64, dates as ISO 8601 in UTC, containers as compact JSON, null as "(null)".
  std::string description() const;

  /// Same kind and equal content, but numbers compare by value across their kinds.
  friend SKELDA_EXPORT bool operator==(const Value&, const Value&);
  friend bool operator!=(const Value& a, const Value& b) { return !(a == b); }

 private:
  template <class T>
  using Whole =
      std::conditional_t<std::is_same_v<T, bool>, bool,
                         std::conditional_t<std::is_signed_v<T>, std::int64_t, std::uint64_t>>;
  using Storage = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, float,
                               std::string, Data, Date, Array, Dictionary>;
  bool isContainer() const noexcept { return kind() >= Kind::array; }
  static Storage copyOf(const Value& source);
  void copyWithoutRecursion(const Value& source);
  void takeApart();

  Storage storage_;
};

/// One entry of a braced dictionary. The members can be moved out of an initializer list.
struct DictionaryEntry {
  mutable std::string key;
  mutable Value value;
};

}  // namespace skelda::platform
