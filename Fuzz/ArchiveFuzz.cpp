#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/KeyedArchive.h"

using namespace skelda;
using platform::Value;

namespace {

/// Makes values of every kind out of bytes.
class Maker {
 public:
  explicit Maker(std::string_view bytes) : bytes_(bytes) {}

  Value value(int depth = 0) {
    switch (byte() % (depth < 6 ? 11 : 9)) {
      case 0:
        return {};
      case 1:
        return byte() % 2 == 0;
      case 2:
        return number<std::int64_t>();
      case 3:
        return number<std::uint64_t>();
      case 4:
        return number<double>();
      case 5:
        return number<float>();
      case 6:
        return text();
      case 7:
        return platform::Data(text());
      case 8:
        return platform::Date(platform::Date::Microseconds(number<std::int64_t>()));
      case 9: {
        platform::Array array;
        for (int count = byte() % 8; count > 0; --count) array.push_back(value(depth + 1));
        return array;
      }
      default: {
        platform::Dictionary dictionary;
        for (int count = byte() % 8; count > 0; --count) dictionary.set(text(), value(depth + 1));
        return dictionary;
      }
    }
  }

 private:
  std::uint8_t byte() { return number<std::uint8_t>(); }

  template <class Number>
  Number number() {
    Number result{};
    const std::string_view taken = take(sizeof result);
    std::memcpy(&result, taken.data(), taken.size());
    return result;
  }

  std::string text() { return std::string(take(byte() % 16)); }

  std::string_view take(std::size_t length) {
    const std::string_view taken = bytes_.substr(0, length);
    bytes_.remove_prefix(taken.size());
    return taken;
  }

  std::string_view bytes_;
};

/// Equal texts say more than equal values: numbers of different kinds are equal.
void expectLossless(const platform::KeyedArchive& archive) {
  const platform::Data written = platform::archivedData(archive);
  const platform::KeyedArchive again = platform::unarchivedObject(written);
  if (again.className != archive.className || again.root != archive.root ||
      platform::archivedData(again) != written)
    std::abort();
}

}  // namespace

// Any bytes are an archive or are refused by the one exception; what was read, and any value at
// all, comes back from an archive as it went in.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);
  expectLossless({"Made", Maker(input).value()});
  try {
    expectLossless(platform::unarchivedObject(platform::Data(std::string(input))));
  } catch (const platform::Exception& exception) {
    // An archive may be readable, yet once restored too deep to write: the tags add levels.
    if (exception.name() != "NSInvalidUnarchiveOperationException" &&
        exception.name() != "NSInvalidArchiveOperationException")
      std::abort();
  }
  return 0;
}
