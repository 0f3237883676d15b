#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "Analytics/Intake/Account/SkeldaAccountPage.h"
#include "Analytics/Intake/Account/SkeldaIntakeFile.h"

/// The bytes of the intake file, as docs/intake-format.md tells them: numbers in the host's order,
/// each 64-bit one aligned and only ever stored whole, for a kill may come between any two stores.
namespace SkeldaIntakeLayout {

using Word = std::atomic<std::uint64_t>;
static_assert(Word::is_always_lock_free, "a lock of this process guards no file");
static_assert(sizeof(Word) == 8 && alignof(Word) == 8);

inline constexpr std::array<char, 8> kMagic = {'S', 'k', 'I', 'n', 't', 'a', 'k', 'e'};
inline constexpr std::uint32_t kFormat = 1;

/// A place: the generation of a segment, which is counted up whenever one is begun (the segment is
/// the generation modulo four), and the offset in it in units of the alignment. Places only grow,
/// so that whoever compares one with what it has seen cannot be deceived by its coming back.
class Place {
 public:
  static constexpr std::uint64_t kFirstGeneration = SkeldaIntakeFile::kSegmentCount;
  static constexpr unsigned kOffsetBits = 24;
  static constexpr std::uint64_t kOffsetMask = (std::uint64_t{1} << kOffsetBits) - 1;

  constexpr Place() = default;
  constexpr explicit Place(std::uint64_t word) : word_(word) {}
  constexpr Place(std::uint64_t generation, std::uint64_t units)
      : word_(generation << kOffsetBits | units) {}

  constexpr std::uint64_t word() const { return word_; }
  constexpr std::uint64_t generation() const { return word_ >> kOffsetBits; }
  constexpr std::uint64_t units() const { return word_ & kOffsetMask; }
  constexpr std::size_t segment() const {
    return static_cast<std::size_t>(generation() % SkeldaIntakeFile::kSegmentCount);
  }
  constexpr Place plus(std::uint64_t units) const { return Place(word_ + units); }
  constexpr auto operator<=>(const Place&) const = default;

 private:
  std::uint64_t word_ = 0;
};

/// Units that lie in front of a payload, and that a record with a payload of that length takes.
inline constexpr std::size_t kRecordHeaderLength = 48;
constexpr std::uint64_t unitsFor(std::uint64_t payloadLength) {
  return (kRecordHeaderLength + payloadLength + SkeldaIntakeFile::kAlignment - 1) /
         SkeldaIntakeFile::kAlignment;
}

struct Record {
  std::uint32_t length;  ///< of the payload
  std::uint32_t boot;    ///< which boot the uptime is of
  std::uint64_t sequenceAndKind;
  std::int64_t microsecondsSince1970;
  std::int64_t uptimeMilliseconds;
  std::uint64_t checksum;
  Word state;

  static constexpr unsigned kKindShift = 56;
  std::uint64_t sequence() const {
    return sequenceAndKind & ((std::uint64_t{1} << kKindShift) - 1);
  }
  std::uint8_t kind() const { return static_cast<std::uint8_t>(sequenceAndKind >> kKindShift); }
  char* payload() { return reinterpret_cast<char*>(this) + kRecordHeaderLength; }
  std::uint64_t units() const { return unitsFor(length); }
};
static_assert(sizeof(Record) == kRecordHeaderLength);

/// What a record's state word says, taken apart. On disk it is mixed with the file's salt: where a
/// record is about to be written lie the bytes of older ones, and a host must not be able to make
/// them look like a state.
struct State {
  enum Phase : std::uint8_t { published = 1, settled = 2 };
  std::uint64_t generation = 0;
  std::uint8_t attempts = 0;  ///< starts that took the record up
  std::uint8_t phase = 0;

  static State of(std::uint64_t word, std::uint64_t salt) {
    const std::uint64_t plain = word ^ salt;
    return {plain >> Place::kOffsetBits, static_cast<std::uint8_t>(plain >> 8),
            static_cast<std::uint8_t>(plain)};
  }
  std::uint64_t word(std::uint64_t salt) const {
    return (generation << Place::kOffsetBits | std::uint64_t{attempts} << 8 | phase) ^ salt;
  }
};

/// Of whole units: two lanes of 64-bit words, which no processor has to wait for one by one.
class Checksum {
 public:
  Checksum(std::uint64_t salt, std::uint64_t place) : a_(salt), b_(place) {}
  void add(const void* bytes, std::size_t units) {
    const char* from = static_cast<const char*>(bytes);
    for (; units > 0; --units, from += SkeldaIntakeFile::kAlignment) {
      std::uint64_t words[2];
      std::memcpy(words, from, sizeof words);
      a_ = std::rotl(a_ ^ words[0], 23) * kFirst;
      b_ = std::rotl(b_ ^ words[1], 23) * kSecond;
    }
  }
  std::uint64_t value() const {
    std::uint64_t sum = a_ ^ std::rotl(b_, 32);
    sum = (sum ^ sum >> 29) * kFirst;
    return sum ^ sum >> 32;
  }

 private:
  static constexpr std::uint64_t kFirst = 0x9E3779B97F4A7C15;
  static constexpr std::uint64_t kSecond = 0xC2B2AE3D27D4EB4F;
  std::uint64_t a_;
  std::uint64_t b_;
};

/// Over the record's first 32 bytes and its payload, whose last unit is filled up with zeros.
inline std::uint64_t checksumOf(Record& record, Place place, std::uint64_t salt) {
  Checksum sum(salt, place.word());
  sum.add(&record, 2);
  sum.add(record.payload(), static_cast<std::size_t>(record.units() - unitsFor(0)));
  return sum.value();
}

/// The file's first page.
struct Page {
  // Never changes.
  std::array<char, 8> magic;
  std::uint32_t format;
  std::uint32_t headerLength;
  std::uint64_t segmentLength;
  std::uint64_t salt;
  std::uint64_t checksum;  ///< of the above

  Word keyHash;                  ///< of the API key that the waiting records were accepted under
  std::array<char, 16> version;  ///< of the agent that accepted them

  /// Where the next record goes. The one word that all callers contend for.
  alignas(64) Word tail;

  /// By segment: where the tail was when it went on to the next one, and as many units behind the
  /// generation's begin as are settled of it. A segment that the tail is not in is free where both
  /// are the same.
  alignas(64) std::array<Word, SkeldaIntakeFile::kSegmentCount> left;
  std::array<Word, SkeldaIntakeFile::kSegmentCount> settled;

  /// A settling under way, for the next start to complete; no ticket where there is none.
  alignas(64) Word intentTicket;
  Word intentCounter;  ///< ten times the kind less 1, and the outcome
  Word intentValue;    ///< what the counter will be

  alignas(64) SkeldaAccountPage account;

  /// UTF-8, zeros behind it. Its first word is stored last.
  alignas(64) std::array<Word, SkeldaIntakeFile::kLongestServer / sizeof(Word)> server;

  std::uint64_t staticChecksum() const {
    Checksum sum(0, 0);
    sum.add(this, 2);
    return sum.value();
  }
};
static_assert(offsetof(Page, tail) == 64 && offsetof(Page, left) == 128 &&
              offsetof(Page, intentTicket) == 192 && offsetof(Page, account) == 256 &&
              offsetof(Page, server) == 768);
static_assert(sizeof(Page) <= SkeldaIntakeFile::kHeaderLength);

inline std::string serverIn(const Page& page) {
  std::string text;
  for (const Word& word : page.server) {
    const auto bytes = std::bit_cast<std::array<char, sizeof(Word)>>(word.load());
    text.append(bytes.data(), bytes.size());
  }
  return text.substr(0, text.find('\0'));
}

inline void setServer(Page& page, std::string_view address) noexcept {
  for (std::size_t i = page.server.size(); i-- > 0;) {
    std::array<char, sizeof(Word)> bytes{};
    const auto from = std::min(i * bytes.size(), address.size());
    address.copy(bytes.data(), bytes.size(), from);
    page.server[i] = std::bit_cast<std::uint64_t>(bytes);
  }
}

}  // namespace SkeldaIntakeLayout
