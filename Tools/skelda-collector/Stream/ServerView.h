#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

/// What a server of the stream has.
struct ServerView {
  using Ids = std::unordered_set<std::string>;

  /// One that has more logs than this elsewhere has lost its count of places, and will put all that
  /// comes elsewhere too: new places for these logs would mend nothing, and take the disk's room.
  static constexpr std::size_t kMostElsewhere = 64;

  std::unordered_map<std::string, std::uint64_t> places;  // by id: the last
  std::unordered_map<std::uint64_t, std::string> ids;     // by place
  std::vector<std::uint64_t> repeated;  // places of logs that are at a later one, too
  std::uint64_t last = 0;

  /// In the order of their places.
  void add(const std::string& id, std::uint64_t place);
  /// The logs from that place on that the other one has at another place, or not at all. What lies
  /// behind the other one's end may still be on its way.
  std::vector<std::string> elsewhereIn(const ServerView& other, std::uint64_t first) const;
  /// Of repeated logs, the places from that on which this one has given up and the other has not.
  std::vector<std::uint64_t> leftIn(const ServerView& other, std::uint64_t first) const;
};
