#include "Tools/skelda-collector/Stream/ServerView.h"

#include <algorithm>
#include <utility>

void ServerView::add(const std::string& id, std::uint64_t place) {
  const auto [at, isFirst] = places.emplace(id, place);
  if (!isFirst) repeated.push_back(std::exchange(at->second, place));
  ids.emplace(place, id);
  last = std::max(last, place);
}

std::vector<std::string> ServerView::elsewhereIn(const ServerView& other,
                                                 std::uint64_t first) const {
  std::vector<std::string> found;
  for (const auto& [id, place] : places) {
    if (place < first || place >= other.last) continue;
    const auto theirs = other.ids.find(place);
    if (theirs == other.ids.end() || theirs->second != id) found.push_back(id);
  }
  return found;
}

std::vector<std::uint64_t> ServerView::leftIn(const ServerView& other, std::uint64_t first) const {
  std::vector<std::uint64_t> found;
  for (const auto& [place, id] : other.ids) {
    const auto at = places.find(id);
    if (place >= first && !ids.contains(place) && at != places.end() && at->second > place)
      found.push_back(place);
  }
  return found;
}
