#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

#include <algorithm>
#include <concepts>
#include <utility>

#include "Analytics/Utils/SkeldaDateUtil.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/JSONReader.h"

namespace {

using platform::Dictionary;
using platform::Value;
using Text = std::optional<std::string>;
using OptionalDate = std::optional<platform::Date>;

template <class T>
bool isNil(const T&) {
  return false;
}
template <class T>
bool isNil(const std::optional<T>& member) {
  return !member;
}

template <class T>
Value valueFrom(const T& member) {
  return member;
}
template <class T>
Value valueFrom(const std::optional<T>& member) {
  return member ? Value(*member) : Value();
}
Value valueFrom(const OptionalDate& member) {
  return member ? SkeldaDateUtil::timestampForSerialization(*member) : Value();
}

// A value that the member cannot hold leaves it as it was, and is answered with false.

template <class Member, class Content>
bool takeContent(Member& member, const Content* content) {
  if (content == nullptr) return false;
  member = *content;
  return true;
}
template <std::integral T>
bool take(T& member, const Value& value) {
  if (!value.isNumber() && value.text() == nullptr) return false;
  member = std::is_signed_v<T> ? static_cast<T>(value.integerValue())
                               : static_cast<T>(value.unsignedValue());
  return true;
}
bool take(bool& member, const Value& value) {
  if (!value.isNumber()) return false;
  member = value.boolValue();
  return true;
}
bool take(OptionalDate& member, const Value& value) {
  if (!value.isNumber()) return false;
  member = SkeldaDateUtil::dateWithInt64Number(value);
  return true;
}
bool take(Text& member, const Value& value) {
  return takeContent(member, value.text());
}
bool take(Dictionary& member, const Value& value) {
  return takeContent(member, value.dictionary());
}
bool take(std::optional<Dictionary>& member, const Value& value) {
  return takeContent(member, value.dictionary());
}
bool take(std::optional<platform::Array>& member, const Value& value) {
  return takeContent(member, value.array());
}

template <class T>
constexpr bool kIsMember = std::is_member_object_pointer_v<T>;

}  // namespace

bool SkeldaStreamRecord::isValidModel() const {
  return std::ranges::none_of(fields(), [this](const SkeldaRecordField& field) {
    return field.isRequired && std::visit(
                                   [this]<class T>(T place) {
                                     if constexpr (kIsMember<T>) return isNil(this->*place);
                                     return false;
                                   },
                                   field.place);
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
  if (const auto* text = std::get_if<SkeldaRecordField::MemberOf<Text>>(&field.place)) {
    if (!(this->**text)) return;
    writer.key(field.key);
    return writer.text(*(this->**text));
  }
  if (const auto* object = std::get_if<SkeldaRecordField::MemberOf<Dictionary>>(&field.place)) {
    writer.key(field.key);
    writer.beginObject();
    for (const auto& [key, value] : this->**object) {
      writer.key(key);
      writer.value(value);
    }
    return writer.endObject();
  }
  const Value value = valueOf(field);
  if (value.isNull()) return;
  writer.key(field.key);
  writer.value(value);
}

Value SkeldaStreamRecord::valueOf(const SkeldaRecordField& field) const {
  return std::visit(
      [this]<class T>(T place) -> Value {
        if constexpr (kIsMember<T>)
          return valueFrom(this->*place);
        else
          return place(*this);
      },
      field.place);
}

bool SkeldaStreamRecord::setMember(const SkeldaRecordField& field, const Value& value) {
  return std::visit(
      [&]<class T>(T place) {
        if constexpr (kIsMember<T>)
          return take(this->*place, value);
        else
          return false;
      },
      field.place);
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
    SKELDA_LOG(2, "{}: {} = {}", method, inconsistentDictText(), skelda::shownDescription(*parsed));
    return false;
  }
  if (isComplete) {
    for (const SkeldaRecordField& field : fields()) {
      const Value* value = field.isComputed() ? nullptr : dictionary->find(field.key);
      if (value != nullptr && !setMember(field, *value) && field.isRequired) isComplete = false;
    }
  }
  if (isComplete && didRead(*dictionary)) return true;
  SKELDA_LOG(2, "{}: invalid json object = {}", method, skelda::shownDescription(*parsed));
  return false;
}
