#include "Platform/Foundation/KeyedArchive.h"

#include <cmath>
#include <limits>
#include <vector>

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/JSONReader.h"
#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Foundation/TextCoding.h"

namespace skelda::platform {
namespace {

using namespace std::string_view_literals;

constexpr std::string_view kFormat = "skelda";
constexpr std::int64_t kVersion = 1;
/// How deep an archive may be nested, in containers of the text. Both sides hold to it, so that
/// what was written is always read.
constexpr std::size_t kMaximumDepth = 256;

[[noreturn]] void refuseWriting(std::string_view reason) {
  throw Exception("NSInvalidArchiveOperationException", reason);
}

[[noreturn]] void refuseReading(std::string_view reason) {
  throw Exception("NSInvalidUnarchiveOperationException", reason);
}

class Archiver {
 public:
  explicit Archiver(std::string& out) : writer_(out) {}

  void write(const Value& value) {
    switch (value.kind()) {
      case Value::Kind::unsignedInteger:
        return tagged("$uint", [&] { writer_.unsignedInteger(value.unsignedValue()); });
      case Value::Kind::real:
        return writeReal(value.doubleValue());
      case Value::Kind::real32:
        return writeReal32(static_cast<float>(value.doubleValue()));
      case Value::Kind::text:
        return writeText(*value.text());
      case Value::Kind::data:
        return tagged("$data", [&] { writer_.text(base64Encoded(value.data()->view())); });
      case Value::Kind::date:
        return tagged("$date",
                      [&] { writer_.integer(value.date()->microsecondsSince1970().count()); });
      case Value::Kind::array:
        return writeArray(*value.array());
      case Value::Kind::dictionary:
        return writeDictionary(*value.dictionary());
      default:
        return writer_.value(value);
    }
  }

 private:
  void open() {
    if (++depth_ > kMaximumDepth) refuseWriting("The object is nested too deeply.");
    writer_.beginObject();
  }
  void close() {
    --depth_;
    writer_.endObject();
  }

  /// An object of one "$" key, whose value `content` writes.
  template <class Content>
  void tagged(std::string_view tag, Content content) {
    open();
    writer_.key(tag);
    content();
    close();
  }

  /// JSON has no word for numbers that are not finite.
  void writeNotFinite(double value) {
    writer_.text(std::isnan(value) ? "nan" : value < 0 ? "-inf" : "inf");
  }

  void writeReal(double value) {
    if (std::isfinite(value)) return writer_.real(value);
    tagged("$real", [&] { writeNotFinite(value); });
  }

  void writeReal32(float value) {
    tagged("$float", [&] {
      // As the double that it is: the shortest 32-bit text of 0x1.5c87fap-84, read as a double and
      // rounded again, is its neighbour.
      if (std::isfinite(value))
        writer_.real(static_cast<double>(value));
      else
        writeNotFinite(static_cast<double>(value));
    });
  }

  /// Text that is not UTF-8 cannot stand in JSON as it is.
  void writeText(const std::string& text) {
    if (isValidUTF8(text)) return writer_.text(text);
    tagged("$text", [&] { writer_.text(base64Encoded(text)); });
  }

  void writeArray(const Array& array) {
    if (++depth_ > kMaximumDepth) refuseWriting("The object is nested too deeply.");
    writer_.beginArray();
    for (const Value& element : array) write(element);
    writer_.endArray();
    --depth_;
  }

  void writeDictionary(const Dictionary& dictionary) {
    for (const auto& [key, value] : dictionary)
      if (!isValidUTF8(key)) return tagged("$pairs", [&] { writePairs(dictionary); });
    if (dictionary.size() == 1 && dictionary.begin()->first.starts_with('$'))
      return tagged("$dict", [&] { writeEntries(dictionary); });
    writeEntries(dictionary);
  }

  void writeEntries(const Dictionary& dictionary) {
    open();
    for (const auto& [key, value] : dictionary) {
      writer_.key(key);
      write(value);
    }
    close();
  }

  /// Keys that JSON cannot spell: a flat list of keys and values.
  void writePairs(const Dictionary& dictionary) {
    Array flat;
    flat.reserve(dictionary.size() * 2);
    for (const auto& [key, value] : dictionary) {
      flat.emplace_back(key);
      flat.push_back(value);
    }
    writeArray(flat);
  }

  JSONWriter writer_;
  std::size_t depth_ = 1;  // the archive's own object
};

Value restored(Value value);

const std::string& textOf(const Value& value) {
  if (value.text() == nullptr) refuseReading("A tagged value does not hold a text.");
  return *value.text();
}

std::string bytesOf(const Value& value) {
  std::optional<Data> bytes = base64Decoded(textOf(value));
  if (!bytes) refuseReading("A tagged value is not base64.");
  return std::move(*bytes).string();
}

bool isInteger(const Value& value) {
  return value.kind() == Value::Kind::integer || value.kind() == Value::Kind::unsignedInteger;
}

double realOf(const Value& value) {
  if (value.kind() == Value::Kind::real || isInteger(value)) return value.doubleValue();
  const std::string& text = textOf(value);
  if (text == "nan") return std::numeric_limits<double>::quiet_NaN();
  if (text == "inf") return std::numeric_limits<double>::infinity();
  if (text == "-inf") return -std::numeric_limits<double>::infinity();
  refuseReading("A tagged value is not a number.");
}

float real32Of(const Value& value) {
  constexpr double kGreatest = std::numeric_limits<float>::max();
  const double wide = realOf(value);
  if (std::isfinite(wide) && std::abs(wide) > kGreatest)
    refuseReading("A 32-bit number is too great.");
  return static_cast<float>(wide);
}

Dictionary restoredEntries(Dictionary dictionary) {
  std::vector<Dictionary::Entry> entries = dictionary.takeEntries();
  Dictionary result;
  result.reserve(entries.size());
  for (auto& [key, value] : entries) result.append(std::move(key), restored(std::move(value)));
  return result;
}

Dictionary dictionaryOfPairs(Value& value) {
  Array* const flat = value.array();
  if (flat == nullptr || flat->size() % 2 != 0) refuseReading("A list of pairs is malformed.");
  std::vector<Dictionary::Entry> entries;
  entries.reserve(flat->size() / 2);
  for (std::size_t i = 0; i < flat->size(); i += 2)
    entries.emplace_back(textOf(restored(std::move((*flat)[i]))),
                         restored(std::move((*flat)[i + 1])));
  return Dictionary::withEntries(std::move(entries));
}

Value restoredTag(std::string_view tag, Value content) {
  if (tag == "$data"sv) return Data(bytesOf(content));
  if (tag == "$text"sv) return bytesOf(content);
  if (tag == "$real"sv) return realOf(content);
  if (tag == "$float"sv) return real32Of(content);
  if (tag == "$pairs"sv) return dictionaryOfPairs(content);
  if (tag == "$date"sv) {
    if (content.kind() != Value::Kind::integer) refuseReading("A date is not a whole number.");
    return Date(Date::Microseconds(content.integerValue()));
  }
  if (tag == "$uint"sv) {
    const bool negative = content.kind() == Value::Kind::integer && content.integerValue() < 0;
    if (!isInteger(content) || negative) refuseReading("An unsigned number is malformed.");
    return content.unsignedValue();
  }
  if (tag == "$dict"sv) {
    if (content.dictionary() == nullptr) refuseReading("A wrapped dictionary is none.");
    return restoredEntries(std::move(*content.dictionary()));
  }
  refuseReading("An unknown tag.");
}

Value restored(Value value) {
  if (Array* const array = value.array()) {
    for (Value& element : *array) element = restored(std::move(element));
    return value;
  }
  Dictionary* const dictionary = value.dictionary();
  if (dictionary == nullptr) return value;
  if (dictionary->size() != 1 || !dictionary->begin()->first.starts_with('$'))
    return restoredEntries(std::move(*dictionary));
  Dictionary::Entry tagged = std::move(dictionary->takeEntries().front());
  return restoredTag(tagged.first, std::move(tagged.second));
}

}  // namespace

Data archivedData(const KeyedArchive& archive) {
  return archivedData(archive.className, archivedText(archive.root));
}

Data archivedData(std::string_view className, std::string_view rootText) {
  if (!isValidUTF8(className)) refuseWriting("The class name is not UTF-8.");
  std::string text;
  text.reserve(rootText.size() + 128);
  JSONWriter writer(text);
  writer.beginObject();
  writer.key("archive");
  writer.text(kFormat);
  writer.key("version");
  writer.integer(kVersion);
  writer.key("class");
  writer.text(className);
  writer.key("root");
  text += rootText;
  writer.endObject();
  return Data(std::move(text));
}

std::string archivedText(const Value& value) {
  std::string text;
  text.reserve(128);
  Archiver(text).write(value);
  return text;
}

KeyedArchive unarchivedObject(const Data& data) {
  ErrorRef error;
  JSONLimits limits;
  limits.maximumDepth = kMaximumDepth;
  std::optional<Value> text = readJSON(data.view(), &error, limits);
  if (!text) refuseReading(error->localizedDescription());
  Dictionary* const archive = text->dictionary();
  if (archive == nullptr) refuseReading("The text is not an archive.");
  const Value* const format = archive->find("archive");
  const Value* const version = archive->find("version");
  const Value* const className = archive->find("class");
  const Value* const root = archive->find("root");
  if (format == nullptr || *format != Value(kFormat) || className == nullptr ||
      className->text() == nullptr || root == nullptr)
    refuseReading("The text is not an archive.");
  if (version == nullptr || version->kind() != Value::Kind::integer ||
      version->integerValue() != kVersion)
    refuseReading("The archive is of another version.");
  return {*className->text(), restored(*root)};
}

}  // namespace skelda::platform
