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
                                                 const std::vector<std::string>& logs) const {
  std::vector<std::string> found;
  for (const auto& id : logs) {
    const auto at = places.find(id);
    if (at == places.end() || at->second >= other.last) continue;
    const auto theirs = other.ids.find(at->second);
    if (theirs == other.ids.end() || theirs->second != id) found.push_back(id);
  }
  return found;
}
