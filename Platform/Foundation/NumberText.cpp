#include "Platform/Foundation/NumberText.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace skelda::platform {
namespace {

/// "1e+20": a sign always, two digits at least.
char* writeExponent(char* out, int exponent) {
  *out++ = 'e';
  *out++ = exponent < 0 ? '-' : '+';
  const int magnitude = exponent < 0 ? -exponent : exponent;
  if (magnitude < 10) *out++ = '0';
  return std::to_chars(out, out + 4, magnitude).ptr;
}

/// Lays out `count` digits whose decimal point stands behind the first `point` of them.
char* layOut(char* out, const char* digits, int count, int point, int widest) {
  const auto put = [&out](const char* from, int length) {
    std::memcpy(out, from, static_cast<std::size_t>(length));
    out += length;
  };
  const auto fill = [&out](int length) { out = std::fill_n(out, length, '0'); };
  if (count <= point && point <= widest) {
    put(digits, count);
    fill(point - count);
    put(".0", 2);
  } else if (0 < point && point <= widest) {
    put(digits, point);
    *out++ = '.';
    put(digits + point, count - point);
  } else if (-4 < point && point <= 0) {
    put("0.", 2);
    fill(-point);
    put(digits, count);
  } else {
    *out++ = digits[0];
    if (count > 1) {
      *out++ = '.';
      put(digits + 1, count - 1);
    }
    out = writeExponent(out, point - 1);
  }
  return out;
}

template <class Real>
char* write(char* out, Real value) noexcept {
  constexpr int kWidest = std::numeric_limits<Real>::digits10;
  constexpr Real kWholeLimit = kWidest > 6 ? Real(1e15) : Real(1e6);
  if (std::signbit(value)) {
    *out++ = '-';
    value = -value;
  }
  if (value < kWholeLimit) {
    const auto whole = static_cast<std::int64_t>(value);
    if (static_cast<Real>(whole) == value) {
      out = std::to_chars(out, out + kNumberTextCapacity - 3, whole).ptr;
      *out++ = '.';
      *out++ = '0';
      return out;
    }
  }
  char text[kNumberTextCapacity];
  const char* const end =
      std::to_chars(text, text + sizeof text, value, std::chars_format::scientific).ptr;
  const char* const mark = std::find(static_cast<const char*>(text), end, 'e');
  int exponent = 0;
  std::from_chars(mark + (mark[1] == '+' ? 2 : 1), end, exponent);
  // Drop the decimal point, which stands behind the first digit when there are more.
  int count = 1;
  if (text[1] == '.') {
    count = static_cast<int>(mark - text) - 1;
    std::memmove(text + 1, text + 2, static_cast<std::size_t>(count - 1));
  }
  return layOut(out, text, count, exponent + 1, kWidest);
}

}  // namespace

char* writeReal(char* out, double value) noexcept {
  return write(out, value);
}
char* writeReal(char* out, float value) noexcept {
  return write(out, value);
}

}  // namespace skelda::platform
