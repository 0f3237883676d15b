#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

class SkeldaStreamRecord;

/// One member of a record's payload. A record lists its fields once, in the order in which they are
/// written; writing, reading back, the keys that reading back requires, and the catalogue all come
/// from that list.
///
///   static constexpr std::array kFields{
///       SkeldaRecordField::of<&SkeldaStreamLocaleInfo::localeCountry_>("sk.country").required(),
///       ...
struct SkeldaRecordField {
  template <class T>
  using MemberOf = T SkeldaStreamRecord::*;
  /// What a method answers; null leaves the key out; not read back by itself.
  using Computed = platform::Value (*)(const SkeldaStreamRecord&);
  /// Where the field is, by its type: no other can be a field. A nil optional leaves its key out; a
  /// date is written as milliseconds since 1970.
  using Place =
      std::variant<MemberOf<bool>, MemberOf<std::uint8_t>, MemberOf<std::uint16_t>,
                   MemberOf<std::uint32_t>, MemberOf<std::int32_t>, MemberOf<std::int64_t>,
                   MemberOf<std::uint64_t>, MemberOf<std::optional<std::string>>,
                   MemberOf<std::optional<platform::Date>>, MemberOf<platform::Dictionary>,
                   MemberOf<std::optional<platform::Dictionary>>,
                   MemberOf<std::optional<platform::Array>>, Computed>;

  std::string_view key;
  Place place;
  bool isRequired = false;

  /// Reading back needs the key, and a record whose member is nil is not valid.
  constexpr SkeldaRecordField required() const { return {key, place, true}; }
  constexpr bool isComputed() const noexcept { return std::holds_alternative<Computed>(place); }

  /// A data member, or a const method without arguments that answers a Value.
  template <auto Member>
  static constexpr SkeldaRecordField of(std::string_view key) {
    return {key, placeOf<Member>(Member)};
  }

 private:
  template <auto Member, class Record, class T>
  static constexpr Place placeOf(T Record::*) {
    if constexpr (std::is_function_v<T>) {
      return Computed([](const SkeldaStreamRecord& record) {
        return (static_cast<const Record&>(record).*Member)();
      });
    } else {
      return static_cast<MemberOf<T>>(Member);
    }
  }
};
