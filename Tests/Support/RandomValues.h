#pragma once

#include "Platform/Foundation/Value.h"
#include "Tests/Support/Basics.h"

namespace skelda::testing {

/// A value of any kind, of so many levels at most, out of a source that gives `number(end)`, which
/// is below that end, `bits()`, which are 64, and `text()`.
template <class Source>
Value randomValue(Source& from, unsigned deepest) {
  const auto kind = from.number(deepest == 0 ? 9 : 11);
  if (kind == 1) return from.number(2) == 0;
  if (kind == 2) return std::bit_cast<std::int64_t>(from.bits()) >> from.number(64);
  if (kind == 3) return from.bits() >> from.number(64);
  if (kind == 4) return std::bit_cast<double>(from.bits());
  if (kind == 5) return std::bit_cast<float>(static_cast<std::uint32_t>(from.bits()));
  if (kind == 6) return from.text();
  if (kind == 7) return Data(from.text());
  if (kind == 8) return Date(Date::Microseconds(std::bit_cast<std::int64_t>(from.bits())));
  Array array;
  Dictionary dictionary;
  for (auto left = kind < 9 ? 0 : from.number(6); left > 0; --left)
    kind == 9 ? array.push_back(randomValue(from, deepest - 1))
              : dictionary.set(from.text(), randomValue(from, deepest - 1));
  return kind == 9 ? Value(array) : kind == 10 ? Value(dictionary) : Value();
}

}  // namespace skelda::testing
