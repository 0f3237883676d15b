#include "Tools/skelda-collector/Faults.h"

#include <charconv>
#include <sstream>
#include <stdexcept>
#include <string_view>

using skelda::platform::MutexLock;

namespace {

constexpr std::size_t kMostFaults = 100;

[[noreturn]] void refuse(const std::string& part) {
  throw std::invalid_argument("not understood: " + part);
}

/// The number at the head of `text`; `unit` becomes what stands behind it.
template <class Number>
Number numberOf(const std::string& text, std::string_view& unit) {
  Number number{};
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || number < Number{}) refuse(text);
  unit = {stop, static_cast<std::size_t>(text.data() + text.size() - stop)};
  return number;
}

std::uint64_t countOf(const std::string& text, std::string_view optionalUnit) {
  std::string_view unit;
  const auto count = numberOf<std::uint64_t>(text, unit);
  if (!unit.empty() && unit != optionalUnit) refuse(text);
  return count;
}

std::chrono::milliseconds durationOf(const std::string& text) {
  std::string_view unit;
  const auto number = numberOf<double>(text, unit);
  const double scale = unit == "ms"                  ? 1
                       : unit == "s" || unit.empty() ? 1000
                       : unit == "m"                 ? 60'000
                       : unit == "h"                 ? 3'600'000
                                                     : 0;
  if (scale == 0 || number * scale > 1e12) refuse(text);
  return std::chrono::milliseconds(static_cast<std::int64_t>(number * scale));
}

int statusOf(const std::string& text) {
  const auto status = countOf(text, "");
  if (status < 200 || status > 599) refuse(text);
  return static_cast<int>(status);
}

std::pair<int, std::string> redirectOf(const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) refuse(text);
  const int status = statusOf(text.substr(0, colon));
  if (status < 300 || status > 399) refuse(text);
  return {status, text.substr(colon + 1)};
}

}  // namespace

Fault Fault::parse(const std::string& text) {
  Fault fault;
  fault.text = text;
  std::istringstream parts(text);
  for (std::string part; std::getline(parts, part, ',');) {
    const auto equals = part.find('=');
    const auto name = part.substr(0, equals);
    const auto value = equals == std::string::npos ? "" : part.substr(equals + 1);
    if (name == "status") {
      fault.status = statusOf(value);
    } else if (name == "delay") {
      fault.delay = durationOf(value);
    } else if (name == "reset-after") {
      fault.resetAfter = countOf(value, "bytes");
    } else if (name == "reset-answer") {
      fault.resetAnswer = countOf(value, "bytes");
    } else if (name == "redirect") {
      fault.redirect = redirectOf(value);
    } else if (part == "drop-answer") {
      fault.dropAnswer = true;
    } else if (name == "for") {
      fault.lasts = durationOf(value);
    } else if (name == "times") {
      fault.times = countOf(value, "");
    } else {
      refuse(part);
    }
  }
  if (!fault.status && !fault.delay && !fault.resetAfter && !fault.resetAnswer && !fault.redirect &&
      !fault.dropAnswer)
    refuse(text.empty() ? "a fault of no words" : text + ": nothing goes wrong");
  return fault;
}

void FaultSequence::dropFirst() {
  faults_.pop_front();
  began_.reset();
  met_ = 0;
}

void FaultSequence::dropThoseThatAreOver(Clock::time_point now) {
  while (!faults_.empty()) {
    const Fault& fault = faults_.front();
    const bool over = (fault.lasts && now - began_.value_or(now) >= *fault.lasts) ||
                      (fault.times && met_ >= *fault.times);
    if (!over) return;
    dropFirst();
  }
}

std::optional<Fault> FaultSequence::next(Clock::time_point now) {
  const MutexLock lock(mutex_);
  dropThoseThatAreOver(now);
  if (faults_.empty()) return std::nullopt;
  if (!began_) began_ = now;
  ++met_;
  return faults_.front();
}

bool FaultSequence::add(Fault fault) {
  const MutexLock lock(mutex_);
  if (faults_.size() >= kMostFaults) return false;
  faults_.push_back(std::move(fault));
  return true;
}

void FaultSequence::clear() {
  const MutexLock lock(mutex_);
  faults_.clear();
  began_.reset();
  met_ = 0;
}

std::vector<FaultSequence::Played> FaultSequence::list(Clock::time_point now) {
  const MutexLock lock(mutex_);
  dropThoseThatAreOver(now);
  std::vector<Played> list;
  for (const auto& fault : faults_)
    list.push_back({.text = fault.text, .met = 0, .times = fault.times, .remaining = fault.lasts});
  if (list.empty()) return list;
  list[0].met = met_;
  if (list[0].times) *list[0].times -= met_;
  if (list[0].remaining && began_)
    *list[0].remaining -= std::chrono::ceil<std::chrono::milliseconds>(now - *began_);
  return list;
}
