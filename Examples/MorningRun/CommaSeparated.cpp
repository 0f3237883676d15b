#include "Examples/MorningRun/CommaSeparated.h"

#include <stdexcept>

namespace {
constexpr int kEnd = std::char_traits<char>::eof();
}

int CommaSeparated::take() {
  const int character = input_.get();
  if (character == '\n') ++line_;
  return character;
}

void CommaSeparated::fail(const char* why) const {
  throw std::runtime_error("line " + std::to_string(line_) + ": " + why);
}

CommaSeparated::Field CommaSeparated::quotedField() {
  Field field{{}, true};
  for (int character = take();; character = take()) {
    if (character == kEnd) fail("a quote is not closed");
    if (character == '"') {
      if (input_.peek() != '"') return field;
      take();
    }
    field.text += static_cast<char>(character);
  }
}

std::optional<CommaSeparated::Record> CommaSeparated::next() {
  if (input_.peek() == kEnd) return std::nullopt;
  Record record;
  while (true) {
    Field field;
    if (input_.peek() == '"') {
      take();
      field = quotedField();
    }
    int character = take();
    while (character != ',' && character != '\n' && character != kEnd) {
      const bool carriageReturn = character == '\r' && input_.peek() == '\n';
      if (field.quoted && !carriageReturn) fail("something stands behind a closing quote");
      if (!carriageReturn) field.text += static_cast<char>(character);
      character = take();
    }
    record.push_back(std::move(field));
    if (character != ',') return record;
  }
}
