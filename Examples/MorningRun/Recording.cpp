#include "Examples/MorningRun/Recording.h"

#include <charconv>
#include <fstream>
#include <stdexcept>

#include "Examples/MorningRun/CommaSeparated.h"

namespace {

template <class Number>
bool isNumber(const std::string& text, Number& number) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end;
}

SkeldaValue valueOf(const CommaSeparated::Field& field) {
  std::int64_t whole = 0;
  double real = 0;
  if (field.quoted) return field.text;
  if (isNumber(field.text, whole)) return whole;
  if (isNumber(field.text, real)) return real;
  return field.text;
}

Recording::Event eventOf(const CommaSeparated::Record& record) {
  double seconds = 0;
  if (record.size() < 2 || record.size() % 2 != 0 || !isNumber(record[0].text, seconds))
    throw std::runtime_error("an event is seconds, a name, and pairs of name and value");
  Recording::Event event{
      std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000)), record[1].text, {}};
  for (std::size_t i = 2; i < record.size(); i += 2)
    event.parameters.set(record[i].text, valueOf(record[i + 1]));
  return event;
}

}  // namespace

Recording Recording::read(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error(path + ": cannot be read");
  CommaSeparated reader(file);
  Recording recording;
  try {
    reader.next();  // the names of the columns
    while (const auto record = reader.next()) recording.events.push_back(eventOf(*record));
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(path + ": " + error.what());
  }
  if (recording.events.empty()) throw std::runtime_error(path + ": no events");
  return recording;
}
