#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

/// A call that was refused, and why. The call answered 0, or had no effect.
enum class SkeldaRefusal : std::uint8_t {
  noKey,
  notAnExtension,
  badName,
  insideSink,
  otherProcess,  ///< another process holds the storage folder, or the folder cannot be had
  overTheBound,  ///< no room in the journal
  forkedChild,
  tooDeep,
  tooLong,
  noMemory,
};
inline constexpr std::size_t kSkeldaRefusalCount = 10;

/// Why a committed log left its folder without becoming a block, or a block its store unsent.
enum class SkeldaLogRemoval : std::uint8_t { folderFull, thirdFailedTry, unreadable, copyFailed };
inline constexpr std::size_t kSkeldaLogRemovalCount = 4;
enum class SkeldaBlockRemoval : std::uint8_t { overLimit, otherKey, damaged };
inline constexpr std::size_t kSkeldaBlockRemovalCount = 3;

/// The account as it lies in memory and on disk: one aligned 64-bit number each, in the host's
/// order of bytes, only ever stored whole. Layout: docs/intake-format.md.
struct SkeldaAccountPage {
  using Counter = std::atomic<std::uint64_t>;
  static_assert(Counter::is_always_lock_free);

  // Indexed by SkeldaIntakeFile::Kind - 1: events, choices.
  std::array<Counter, 2> accepted;
  std::array<Counter, 2> cutOff;  ///< numbered, but the process was killed inside the call
  std::array<Counter, 2> replayed;
  std::array<Counter, 2> unprotected;  ///< accepted while nothing but memory could hold them
  std::array<std::array<Counter, 10>, 2> settled;  ///< by SkeldaIntakeOutcome
  std::array<Counter, kSkeldaRefusalCount> refused;

  Counter framesWritten;
  Counter framesLost;  ///< in the open log when it was emptied uncopied, or never written
  Counter synchronizationsFailed;
  Counter logsCommited;
  Counter logsStored;
  std::array<Counter, kSkeldaLogRemovalCount> logsRemoved;
  Counter blocksStored;
  Counter blocksAcknowledged;
  Counter blocksRejected;  ///< answered 400
  std::array<Counter, kSkeldaBlockRemovalCount> blocksRemoved;
  Counter bytesSent;
  Counter requests;
  Counter lastAnswer;      ///< status code; 0 before the first
  Counter lastAnswerTime;  ///< microseconds since 1970
  Counter linesDropped;    ///< log lines that nobody took
  Counter inconsistent;    ///< starts at which the account did not add up and was corrected
};
