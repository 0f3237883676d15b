#include <algorithm>
#include <utility>
#include <vector>

#include "Platform/Foundation/Value.h"

namespace skelda::platform {

Dictionary::Dictionary() = default;
Dictionary::Dictionary(const Dictionary&) = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary&) = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary::Dictionary(std::initializer_list<DictionaryEntry> entries) {
  entries_.reserve(entries.size());
  for (const DictionaryEntry& entry : entries) set(std::move(entry.key), std::move(entry.value));
}

Dictionary Dictionary::withEntries(std::vector<Entry> entries) {
  constexpr std::size_t kFewEntries = 16;
  Dictionary result;
  if (entries.size() <= kFewEntries) {
    auto end = entries.begin();
    for (Entry& entry : entries) {
      const auto same = std::find_if(entries.begin(), end,
                                     [&](const Entry& one) { return one.first == entry.first; });
      if (same != end) {
        same->second = std::move(entry.second);
      } else if (Entry& place = *end++; &place != &entry) {
        place = std::move(entry);
      }
    }
    entries.erase(end, entries.end());
    result.entries_ = std::move(entries);
    return result;
  }
  std::vector<std::size_t> order(entries.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(), [&entries](std::size_t a, std::size_t b) {
    const int compared = entries[a].first.compare(entries[b].first);
    return compared != 0 ? compared < 0 : a < b;
  });
  std::vector<bool> repeats(entries.size(), false);
  for (std::size_t i = 1, first = order[0]; i < order.size(); ++i) {
    const std::size_t current = order[i];
    repeats[current] = entries[current].first == entries[first].first;
    if (repeats[current])
      entries[first].second = std::move(entries[current].second);
    else
      first = current;
  }
  std::size_t kept = 0;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (repeats[i]) continue;
    if (kept != i) entries[kept] = std::move(entries[i]);
    ++kept;
  }
  entries.resize(kept);
  result.entries_ = std::move(entries);
  return result;
}

std::size_t Dictionary::size() const noexcept {
  return entries_.size();
}
bool Dictionary::empty() const noexcept {
  return entries_.empty();
}
void Dictionary::reserve(std::size_t count) {
  entries_.reserve(count);
}

const Value* Dictionary::find(std::string_view key) const noexcept {
  for (const Entry& entry : entries_)
    if (entry.first == key) return &entry.second;
  return nullptr;
}

void Dictionary::set(std::string key, Value value) {
  for (Entry& entry : entries_) {
    if (entry.first != key) continue;
    entry.second = std::move(value);
    return;
  }
  append(std::move(key), std::move(value));
}

void Dictionary::append(std::string key, Value value) {
  entries_.emplace_back(std::move(key), std::move(value));
}

bool Dictionary::erase(std::string_view key) {
  const auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [key](const Entry& entry) { return entry.first == key; });
  if (found == entries_.end()) return false;
  entries_.erase(found);
  return true;
}

Dictionary::const_iterator Dictionary::begin() const noexcept {
  return entries_.begin();
}
Dictionary::const_iterator Dictionary::end() const noexcept {
  return entries_.end();
}

std::vector<Dictionary::Entry> Dictionary::takeEntries() {
  return std::exchange(entries_, {});
}

bool operator==(const Dictionary& a, const Dictionary& b) {
  if (a.size() != b.size()) return false;
  std::size_t index = 0;
  for (const auto& [key, value] : a) {
    // Most equal dictionaries were filled in the same order: look there first.
    const Dictionary::Entry& beside = b.entries_[index++];
    const Value* const other = beside.first == key ? &beside.second : b.find(key);
    if (other == nullptr || !(value == *other)) return false;
  }
  return true;
}

}  // namespace skelda::platform
