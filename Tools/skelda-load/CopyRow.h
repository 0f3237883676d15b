#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/Foundation/Value.h"

namespace skelda::tools {

/// Appends the fields of a line to a text, as COPY reads them: tabs between them, \N for null.
class CopyRow {
 public:
  explicit CopyRow(std::string& out) : out_(out) {}

  CopyRow& null();
  CopyRow& number(std::int64_t value);
  CopyRow& text(std::string_view value);
  /// Milliseconds since 1970 as a point in time; null for one that no calendar holds.
  CopyRow& time(std::int64_t milliseconds);
  /// The member of a payload under a key: null where it is not there, or is of another kind.
  CopyRow& number(const platform::Value* value);
  CopyRow& boolean(const platform::Value* value);
  CopyRow& text(const platform::Value* value);
  /// Any value as jsonb; null where there is none.
  CopyRow& json(const platform::Value* value);

 private:
  void separate();

  std::string& out_;
  bool isFirst_ = true;
};

}  // namespace skelda::tools
