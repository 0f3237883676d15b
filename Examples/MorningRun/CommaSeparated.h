#pragma once

#include <istream>
#include <optional>
#include <string>
#include <vector>

/// Reads comma-separated values, record by record. A quoted field may hold commas, line breaks and
/// doubled quotes; lines end with LF or CRLF. Records may differ in length.
class CommaSeparated {
 public:
  struct Field {
    std::string text;
    bool quoted = false;
  };
  using Record = std::vector<Field>;

  /// `input` is read as far as is asked for, and must outlive the reader.
  explicit CommaSeparated(std::istream& input) : input_(input) {}

  /// The next record, or nothing at the end. Throws std::runtime_error, naming the line, when a
  /// quote is never closed or something stands behind a closing quote.
  std::optional<Record> next();

 private:
  Field quotedField();
  int take();
  [[noreturn]] void fail(const char* why) const;

  std::istream& input_;
  int line_ = 1;
};
