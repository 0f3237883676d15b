#pragma once

#include <cstdint>

/// What became of everything that the agent was given, over all runs, as far as its files know. A
/// value, taken at one moment; the sums hold at any moment at which nothing is under way.
///
///     accepted = stored + dropped + waiting + cutOff
///     logs.commited = logs.stored + logs.waiting + logs.removed
///     blocks.stored = blocks.acknowledged + blocks.rejected + blocks.waiting + blocks.removed
struct SkeldaAccount {
  /// Of events, or of choices (user id, user properties, consent, opt-out, deletion).
  struct Records {
    std::uint64_t accepted = 0;
    std::uint64_t stored = 0;                    ///< in frames that are synchronised
    std::uint64_t waiting = 0;                   ///< in the intake journal, and in no frame yet
    std::uint64_t cutOff = 0;                    ///< the process was killed inside the call
    std::uint64_t droppedBySessionCap = 0;       ///< over the events of a session
    std::uint64_t droppedBySessionDuration = 0;  ///< over its minutes
    std::uint64_t droppedAsRepeated = 0;         ///< the session had that event already
    std::uint64_t droppedNotUTF8 = 0;
    std::uint64_t droppedWrongKind = 0;         ///< parameters, say, that are no dictionary
    std::uint64_t droppedBySerializer = 0;      ///< there is no frame for it, or it is too long
    std::uint64_t droppedOtherKey = 0;          ///< accepted under another API key
    std::uint64_t droppedOtherVersion = 0;      ///< accepted by another version of the agent
    std::uint64_t droppedReplayedTooOften = 0;  ///< three starts did not survive it
    std::uint64_t replayed = 0;                 ///< taken up by a later start
    std::uint64_t unprotected = 0;  ///< accepted while nothing but memory could hold them

    /// All that was dropped.
    std::uint64_t dropped() const noexcept {
      return droppedBySessionCap + droppedBySessionDuration + droppedAsRepeated + droppedNotUTF8 +
             droppedWrongKind + droppedBySerializer + droppedOtherKey + droppedOtherVersion +
             droppedReplayedTooOften;
    }
    /// Whether nothing is missing.
    bool addsUp() const noexcept { return accepted == stored + dropped() + waiting + cutOff; }
  };

  /// Calls that had no effect. Those of a process that never had a storage folder are counted in
  /// memory only.
  struct Refused {
    std::uint64_t noKey = 0;
    std::uint64_t notAnExtension = 0;
    std::uint64_t badName = 0;
    std::uint64_t insideLogSink = 0;
    std::uint64_t otherProcess = 0;
    std::uint64_t overTheBound = 0;
    std::uint64_t forkedChild = 0;
    std::uint64_t tooDeep = 0;
    std::uint64_t tooLong = 0;
    std::uint64_t noMemory = 0;
  };

  /// Closed frame logs.
  struct Logs {
    std::uint64_t commited = 0;
    std::uint64_t stored = 0;  ///< as blocks
    std::uint64_t waiting = 0;
    std::uint64_t removedFolderFull = 0;
    std::uint64_t removedThirdFailedTry = 0;
    std::uint64_t removedUnreadable = 0;
    std::uint64_t removed() const noexcept {
      return removedFolderFull + removedThirdFailedTry + removedUnreadable;
    }
    bool addsUp() const noexcept { return commited == stored + waiting + removed(); }
  };

  /// Logs that are waiting for the server, each stored as a block.
  struct Blocks {
    std::uint64_t stored = 0;
    std::uint64_t acknowledged = 0;
    std::uint64_t rejected = 0;  ///< answered 400
    std::uint64_t waiting = 0;
    std::uint64_t removedOverLimit = 0;
    std::uint64_t removedOtherKey = 0;
    std::uint64_t removedDamaged = 0;
    std::uint64_t removed() const noexcept {
      return removedOverLimit + removedOtherKey + removedDamaged;
    }
    bool addsUp() const noexcept { return stored == acknowledged + rejected + waiting + removed(); }
  };

  /// By kind. What is no struct is counted for the agent as a whole.
  Records events;
  Records choices;
  Refused refused;
  Logs logs;
  Blocks blocks;
  std::uint64_t framesWritten = 0;
  std::uint64_t framesLost = 0;  ///< in an open log that had to be emptied uncopied
  std::uint64_t synchronizationsFailed = 0;
  std::uint64_t bytesSent = 0;
  std::uint64_t requests = 0;
  std::uint64_t lastAnswer = 0;  ///< HTTP status; 0 before the first
  /// Microseconds since 1970; 0 before the first.
  std::int64_t lastAnswerTime = 0;
  std::uint64_t logLinesDropped = 0;
  /// Starts that found the account not to add up, and corrected it.
  std::uint64_t inconsistentStarts = 0;
};
