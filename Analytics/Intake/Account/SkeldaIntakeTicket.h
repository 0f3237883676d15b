#pragma once

#include <cstddef>
#include <cstdint>

/// What a message remembers of the record that it was made of: the place in the journal and its
/// generation. 0 is none. A value; whoever carries it need not know what is behind it.
using SkeldaIntakeTicket = std::uint64_t;
inline constexpr SkeldaIntakeTicket kSkeldaNoTicket = 0;

/// What becomes of an accepted record in the end.
enum class SkeldaIntakeOutcome : std::uint8_t {
  stored,            ///< in a frame that is synchronised, or taken over by its source for good
  sessionCap,        ///< dropped: the session had its number of events
  sessionDuration,   ///< dropped: the session had its length
  repeated,          ///< dropped: an event of that id was sent in this session
  notUTF8,           ///< dropped: text that no payload can carry
  wrongKind,         ///< dropped: a value of a kind that the call does not take
  serializer,        ///< dropped: no frame could be made of it
  otherKey,          ///< dropped: accepted under another API key
  otherVersion,      ///< dropped: accepted by another version of the agent
  replayedTooOften,  ///< dropped: starts took it up, three of them alone, and died of it
};
inline constexpr std::size_t kSkeldaIntakeOutcomeCount = 10;

/// The host's call behind what a source is asked to send: the record that is to be settled, and the
/// two times of the call, which become the stamps of the message. Without a ticket, there was none:
/// a message is stamped when it is made.
struct SkeldaIntakeOrigin {
  SkeldaIntakeTicket ticket = kSkeldaNoTicket;
  /// Wall clock, since 1970.
  std::int64_t epochMilliseconds = 0;
  /// Since boot.
  std::int64_t uptimeMilliseconds = 0;
};
