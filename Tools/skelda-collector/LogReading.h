#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

/// What the page shows of a log that somebody opens or searches. All texts are the log's own:
/// whatever shows them shows them as text.
class LogReading {
 public:
  using Json = nlohmann::ordered_json;

  /// Whole frames from the one with that index on, as many as are worth showing at once, with their
  /// places and payloads, decoded; under "bytes" theirs, in base64, and under "next" the index to
  /// go on with, where there are more. Of a frame that is too long for that, the beginning.
  static Json frames(std::string_view log, std::uint64_t first);

  /// By type, of the records that say where a log came from, the one that stands last in it.
  static Json environment(std::string_view log);

  struct Wanted {
    std::string name;  // a part of the name, whatever the case; empty for all
    std::optional<std::int64_t> session;
    std::uint64_t below = UINT64_MAX;  // offset of the frame
    std::size_t most = 100;
  };
  /// The last events that are wanted, newest first, as an array.
  static Json events(std::string_view log, const Wanted& wanted);
};
