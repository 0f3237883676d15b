#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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
  enum class Kind : std::uint8_t {
    boolean,
    uint8,
    uint16,
    uint32,
    int32,
    int64,
    uint64,
    text,               ///< std::optional<std::string>; nil leaves the key out
    date,               ///< std::optional<Date>, as milliseconds since 1970; nil leaves the key out
    dictionary,         ///< Dictionary
    nilableDictionary,  ///< std::optional<Dictionary>; nil leaves the key out
    nilableArray,       ///< std::optional<Array>; nil leaves the key out
    computed,           ///< what a method answers; null leaves the key out; not read back by itself
  };

  std::string_view key;
  Kind kind;
  bool isRequired = false;
  const void* (*member)(const SkeldaStreamRecord&) = nullptr;
  platform::Value (*compute)(const SkeldaStreamRecord&) = nullptr;

  /// Reading back needs the key, and a record whose member is nil is not valid.
  constexpr SkeldaRecordField required() const {
    SkeldaRecordField field = *this;
    field.isRequired = true;
    return field;
  }

  /// A data member; its type says the kind.
  template <auto Member>
  static constexpr SkeldaRecordField of(std::string_view key) {
    return ofMember<Member>(key, Member);
  }
  /// A const method without arguments that answers a Value.
  template <auto Method>
  static constexpr SkeldaRecordField computed(std::string_view key) {
    return ofMethod<Method>(key, Method);
  }

 private:
  static constexpr Kind kindOf(const bool*) { return Kind::boolean; }
  static constexpr Kind kindOf(const std::uint8_t*) { return Kind::uint8; }
  static constexpr Kind kindOf(const std::uint16_t*) { return Kind::uint16; }
  static constexpr Kind kindOf(const std::uint32_t*) { return Kind::uint32; }
  static constexpr Kind kindOf(const std::int32_t*) { return Kind::int32; }
  static constexpr Kind kindOf(const std::int64_t*) { return Kind::int64; }
  static constexpr Kind kindOf(const std::uint64_t*) { return Kind::uint64; }
  static constexpr Kind kindOf(const std::optional<std::string>*) { return Kind::text; }
  static constexpr Kind kindOf(const std::optional<platform::Date>*) { return Kind::date; }
  static constexpr Kind kindOf(const platform::Dictionary*) { return Kind::dictionary; }
  static constexpr Kind kindOf(const std::optional<platform::Dictionary>*) {
    return Kind::nilableDictionary;
  }
  static constexpr Kind kindOf(const std::optional<platform::Array>*) { return Kind::nilableArray; }

  template <auto Member, class Record, class T>
  static constexpr SkeldaRecordField ofMember(std::string_view key, T Record::*) {
    return {key, kindOf(static_cast<const T*>(nullptr)), false,
            [](const SkeldaStreamRecord& record) -> const void* {
              return &(static_cast<const Record&>(record).*Member);
            }};
  }
  template <auto Method, class Record>
  static constexpr SkeldaRecordField ofMethod(std::string_view key,
                                              platform::Value (Record::*)() const) {
    return {key, Kind::computed, false, nullptr, [](const SkeldaStreamRecord& record) {
              return (static_cast<const Record&>(record).*Method)();
            }};
  }
};
