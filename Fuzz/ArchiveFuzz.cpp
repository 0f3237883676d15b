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

  std::size_t number(std::size_t end) { return static_cast<unsigned char>(take(1)[0]) % end; }
  std::uint64_t bits() {
    std::uint64_t bits = 0;
    std::memcpy(&bits, take(sizeof bits).data(), sizeof bits);
    return bits;
  }
  std::string text() { return take(number(16)); }

 private:
  /// So many bytes, zeros where there are no more.
  std::string take(std::size_t length) {
    std::string taken(bytes_.substr(0, length));
    bytes_.remove_prefix(taken.size());
    taken.resize(length);
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
  Maker maker(input);
  expectLossless({"Made", skelda::testing::randomValue(maker, 6)});
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
