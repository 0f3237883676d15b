#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

#include <algorithm>
#include <utility>

#include "Analytics/Utils/SkeldaDateUtil.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/JSONReader.h"

namespace {

using Kind = SkeldaRecordField::Kind;
using platform::Value;

template <class T>
const T& as(const void* member) {
  return *static_cast<const T*>(member);
}

/// Whether the member is of a kind that can be nil, and is.
bool isNil(Kind kind, const void* member) {
  switch (kind) {
    case Kind::text:
      return !as<std::optional<std::string>>(member);
    case Kind::date:
      return !as<std::optional<platform::Date>>(member);
    case Kind::nilableDictionary:
      return !as<std::optional<platform::Dictionary>>(member);
    case Kind::nilableArray:
      return !as<std::optional<platform::Array>>(member);
    default:
      return false;
  }
}

template <class T>
bool setInteger(void* member, const Value& value) {
  if (!value.isNumber() && value.text() == nullptr) return false;
  *static_cast<T*>(member) = std::is_signed_v<T> ? static_cast<T>(value.integerValue())
                                                 : static_cast<T>(value.unsignedValue());
  return true;
}

template <class Member, class Content>
bool setContent(void* member, const Content* content) {
  if (content == nullptr) return false;
  *static_cast<Member*>(member) = *content;
  return true;
}

}  // namespace

bool SkeldaStreamRecord::isValidModel() const {
  return std::ranges::none_of(fields(), [this](const SkeldaRecordField& field) {
    return field.isRequired && field.member != nullptr && isNil(field.kind, field.member(*this));
  });
}

bool SkeldaStreamRecord::validOrReported() const {
  if (isValidModel()) return true;
  const std::string method = fmt::format("-[{} dictionaryRepresentation]", className());
  SkeldaUtil::assert_(false, method);
  SKELDA_LOG(2, "{}: {}", method, invalidModelText());
  return false;
}

std::optional<platform::Dictionary> SkeldaStreamRecord::dictionaryRepresentation() const {
  if (!validOrReported()) return std::nullopt;
  platform::Dictionary dictionary;
  dictionary.reserve(fields().size());
  for (const SkeldaRecordField& field : fields()) {
    Value value = valueOf(field);
    if (!value.isNull()) dictionary.append(std::string(field.key), std::move(value));
  }
  return dictionary;
}

bool SkeldaStreamRecord::writeJSON(platform::JSONWriter& writer) const {
  if (!validOrReported()) return false;
  writer.beginObject();
  for (const SkeldaRecordField& field : fields()) writeField(field, writer);
  writer.endObject();
  return true;
}

void SkeldaStreamRecord::writeField(const SkeldaRecordField& field,
                                    platform::JSONWriter& writer) const {
  // What every event writes goes straight to the text; the rest may take the way over a value.
  const void* member = field.member != nullptr ? field.member(*this) : nullptr;
  switch (field.kind) {
    case Kind::text:
      if (isNil(field.kind, member)) return;
      writer.key(field.key);
      return writer.text(*as<std::optional<std::string>>(member));
    case Kind::dictionary: {
      writer.key(field.key);
      writer.beginObject();
      for (const auto& [key, value] : as<platform::Dictionary>(member)) {
        writer.key(key);
        writer.value(value);
      }
      return writer.endObject();
    }
    default: {
      const Value value = valueOf(field);
      if (value.isNull()) return;
      writer.key(field.key);
      return writer.value(value);
    }
  }
}

Value SkeldaStreamRecord::valueOf(const SkeldaRecordField& field) const {
  if (field.kind == Kind::computed) return field.compute(*this);
  const void* member = field.member(*this);
  if (isNil(field.kind, member)) return {};
  switch (field.kind) {
    case Kind::boolean:
      return as<bool>(member);
    case Kind::uint8:
      return as<std::uint8_t>(member);
    case Kind::uint16:
      return as<std::uint16_t>(member);
    case Kind::uint32:
      return as<std::uint32_t>(member);
    case Kind::int32:
      return as<std::int32_t>(member);
    case Kind::int64:
      return as<std::int64_t>(member);
    case Kind::uint64:
      return as<std::uint64_t>(member);
    case Kind::text:
      return *as<std::optional<std::string>>(member);
    case Kind::date:
      return SkeldaDateUtil::timestampForSerialization(*as<std::optional<platform::Date>>(member));
    case Kind::dictionary:
      return as<platform::Dictionary>(member);
    case Kind::nilableDictionary:
      return *as<std::optional<platform::Dictionary>>(member);
    case Kind::nilableArray:
      return *as<std::optional<platform::Array>>(member);
    case Kind::computed:
      break;
  }
  return {};
}

bool SkeldaStreamRecord::setMember(const SkeldaRecordField& field, const Value& value) {
  // The record is this very object, and not const.
  void* member = const_cast<void*>(field.member(*this));
  switch (field.kind) {
    case Kind::boolean:
      if (!value.isNumber()) return false;
      *static_cast<bool*>(member) = value.boolValue();
      return true;
    case Kind::uint8:
      return setInteger<std::uint8_t>(member, value);
    case Kind::uint16:
      return setInteger<std::uint16_t>(member, value);
    case Kind::uint32:
      return setInteger<std::uint32_t>(member, value);
    case Kind::int32:
      return setInteger<std::int32_t>(member, value);
    case Kind::int64:
      return setInteger<std::int64_t>(member, value);
    case Kind::uint64:
      return setInteger<std::uint64_t>(member, value);
    case Kind::text:
      return setContent<std::optional<std::string>>(member, value.text());
    case Kind::date:
      if (!value.isNumber()) return false;
      *static_cast<std::optional<platform::Date>*>(member) =
          SkeldaDateUtil::dateWithInt64Number(value);
      return true;
    case Kind::dictionary:
      return setContent<platform::Dictionary>(member, value.dictionary());
    case Kind::nilableDictionary:
      return setContent<std::optional<platform::Dictionary>>(member, value.dictionary());
    case Kind::nilableArray:
      return setContent<std::optional<platform::Array>>(member, value.array());
    case Kind::computed:
      break;
  }
  return false;
}

bool SkeldaStreamRecord::holdsRequired(std::span<const SkeldaRecordField> fields,
                                       const platform::Dictionary& dictionary) {
  return std::ranges::all_of(fields, [&](const SkeldaRecordField& field) {
    return !field.isRequired || dictionary.contains(field.key);
  });
}

bool SkeldaStreamRecord::readJSON(const platform::Data& json) {
  const std::string method = fmt::format("+[{} streamEntityFromJSONData:]", className());
  platform::ErrorRef error;
  const std::optional<Value> parsed = platform::readJSON(json.view(), &error);
  if (!parsed) {
    SKELDA_LOG(2, "{}: error [{}] converting json payload to json object", method,
               platform::description(error));
    return false;
  }

  const platform::Dictionary* dictionary = parsed->dictionary();
  bool isComplete = dictionary != nullptr && holdsRequired(fields(), *dictionary);
  if (!isComplete && !inconsistentDictText().empty()) {
    SkeldaUtil::assert_(false, method);
    SKELDA_LOG(2, "{}: {} = {}", method, inconsistentDictText(), parsed->description());
    return false;
  }
  if (isComplete) {
    for (const SkeldaRecordField& field : fields()) {
      const Value* value = field.member != nullptr ? dictionary->find(field.key) : nullptr;
      if (value != nullptr && !setMember(field, *value) && field.isRequired) isComplete = false;
    }
  }
  if (isComplete && didRead(*dictionary)) return true;
  SKELDA_LOG(2, "{}: invalid json object = {}", method, parsed->description());
  return false;
}
