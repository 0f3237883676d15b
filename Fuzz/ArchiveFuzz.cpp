// Any bytes are an archive or are refused by the one exception; what was read, and any value at
// all, comes back from an archive as it went in.

#include "Fuzz/Fuzz.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/KeyedArchive.h"
#include "Tests/Support/RandomValues.h"

using namespace skelda;

namespace {

/// Values are made out of these bytes.
class Maker {
 public:
  explicit Maker(std::string_view bytes) : bytes_(bytes) {}

  std::size_t number(std::size_t end) { return takeByte(bytes_) % end; }
  std::uint64_t bits() {
    std::uint64_t bits = 0;
    for (unsigned at = 0; at < 64; at += 8) bits |= std::uint64_t{takeByte(bytes_)} << at;
    return bits;
  }
  std::string text() {
    std::string text(number(16), '\0');
    for (char& byte : text) byte = static_cast<char>(takeByte(bytes_));
    return text;
  }

 private:
  std::string_view bytes_;
};

/// Equal texts say more than equal values: numbers of different kinds are equal.
void expectLossless(const platform::KeyedArchive& archive) {
  const platform::Data written = platform::archivedData(archive);
  const platform::KeyedArchive again = platform::unarchivedObject(written);
  require(again.className == archive.className && again.root == archive.root);
  require(platform::archivedData(again) == written);
}

}  // namespace

void fuzz(std::string_view input) {
  Maker maker(input);
  expectLossless({"Made", skelda::testing::randomValue(maker, 6)});
  try {
    expectLossless(platform::unarchivedObject(platform::Data(std::string(input))));
  } catch (const platform::Exception& exception) {
    // An archive may be readable, yet once restored too deep to write: the tags add levels.
    require(exception.name() == "NSInvalidUnarchiveOperationException" ||
            exception.name() == "NSInvalidArchiveOperationException");
  }
}
