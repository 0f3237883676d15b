#include "Analytics/Intake/Journal/SkeldaIntakeCall.h"

#include "Tests/Support/Documents.h"
#include "Tests/Support/RandomValues.h"

namespace {

using Call = SkeldaIntakeCall;

std::string encoded(Call::Kind kind, Call::Values values) {
  const auto size = Call::sizeOf(values);
  EXPECT_FALSE(size.refusal);
  std::string bytes(size.length + 1, '\x55');
  Call::write(bytes.data(), kind, values);
  EXPECT_EQ(bytes.back(), '\x55') << "written past what was measured";
  bytes.pop_back();
  return bytes;
}

class RandomValues {
 public:
  std::size_t number(std::size_t end) { return static_cast<std::size_t>(random_() % end); }

  std::uint64_t bits() { return random_(); }
  Value value(unsigned deepest) { return randomValue(*this, deepest); }
  std::string text() {
    std::string text(number(4) == 0 ? number(300) : number(12), ' ');
    for (char& byte : text) byte = static_cast<char>(random_());
    return text;
  }

 private:
  std::mt19937_64 random_{20260711};
};

// What is read is written again: only the same value of the same kind gives the same bytes, not
// numbers included, which are equal to nothing.
TEST(SkeldaIntakeCall, ReadsBackAnyValuesAndNothingElse) {
  RandomValues random;
  for (int round = 0; round < 3000; ++round) {
    const Value name = random.value(1), parameters = random.value(4);
    const auto bytes = encoded(Call::Kind::event, {name, parameters});
    const auto call = Call::read(bytes);
    ASSERT_TRUE(call);
    ASSERT_EQ(call->values.size(), 2U);
    EXPECT_EQ(encoded(call->kind, {call->values[0], call->values[1]}), bytes);
    const auto cut = random.number(bytes.size());
    EXPECT_FALSE(Call::read(std::string_view(bytes).substr(0, cut)));
    EXPECT_FALSE(Call::read(bytes + '\0'));
    auto damaged = bytes;
    damaged[random.number(bytes.size())] = static_cast<char>(random.number(256));
    Call::read(damaged);  // says something or nothing, and harms nobody
  }
  for (const auto* hostile :
       {"", "\x01", "\x09", "\xff\x01", "\x01\x09\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"})
    EXPECT_FALSE(Call::read(hostile));
}

TEST(SkeldaIntakeCall, IsWrittenAsTheDocumentShows) {
  const Value name("lap"), parameters{{"n", -3}};
  std::string hex = "\n\n   ";
  for (const char byte : encoded(Call::Kind::event, {name, parameters}))
    hex += fmt::format(" {:02x}", static_cast<unsigned char>(byte));
  EXPECT_NE(document("intake-format.md").find(hex + "\n\n"), std::string::npos) << hex;
}

Value nested(unsigned levels) {
  Value value = "bottom";
  for (unsigned level = 0; level < levels; ++level) value = Array{std::move(value)};
  return value;
}

TEST(SkeldaIntakeCall, TakesSixtyFourLevelsAndAMebibyte) {
  const auto refusal = [](const Value& value) { return Call::sizeOf({value}).refusal; };
  const auto deepest = nested(Call::kDeepest);
  const auto deep = encoded(Call::Kind::userId, {deepest});
  EXPECT_TRUE(Call::read(deep));
  EXPECT_EQ(refusal(nested(Call::kDeepest + 1)), SkeldaRefusal::tooDeep);
  auto deeper = deep;
  deeper.insert(1, "\x09\x01");
  EXPECT_FALSE(Call::read(deeper)) << "a file may have been tampered with";

  const std::size_t overhead = 1 + 1 + 3;  // the call's kind, the value's, three digits of length
  EXPECT_FALSE(refusal(std::string(Call::kLongest - overhead, 't')));
  EXPECT_EQ(refusal(std::string(Call::kLongest - overhead + 1, 't')), SkeldaRefusal::tooLong);
  EXPECT_EQ(refusal(Array(Call::kLongest)), SkeldaRefusal::tooLong);
}

}  // namespace
