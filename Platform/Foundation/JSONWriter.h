#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/Foundation/Value.h"

namespace skelda::platform {

/// Writes JSON text straight into a growing string, without a document in between. Commas are its
/// own affair; nesting is the caller's. Text must be UTF-8; what is not is written as U+FFFD.
/// Not a number and the infinities, which JSON has no word for, are written as null.
class JSONWriter {
 public:
  explicit JSONWriter(std::string& out, bool pretty = false);

  void beginObject();
  void endObject();
  void beginArray();
  void endArray();
  void key(std::string_view name);
  void null();
  void boolean(bool value);
  void integer(std::int64_t value);
  void unsignedInteger(std::uint64_t value);
  void real(double value);
  void real32(float value);
  void text(std::string_view value);
  /// Any value; bytes as base64 text, dates as milliseconds since 1970.
  void value(const Value& value);

 private:
  void begin(char bracket);
  void end(char bracket);
  void separate();
  void newline();

  std::string& out_;
  bool pretty_;
  bool needsComma_ = false;
  bool afterKey_ = false;
  unsigned depth_ = 0;
};

/// `value` as one JSON text.
std::string jsonText(const Value& value, bool pretty = false);

}  // namespace skelda::platform
