// Which pages of the intake file count as this process's memory, and who waits for them.

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "Analytics/Intake/Account/SkeldaIntakeFile.h"
#include "Analytics/Intake/Account/SkeldaIntakeLayout.h"

using namespace SkeldaIntakeLayout;

namespace {

constexpr std::uint64_t unitsOf(std::uint64_t kibibytes) {
  return (kibibytes << 10) / SkeldaIntakeFile::kAlignment;
}

/// Where that unit lies in a segment; at the latest at its end.
std::size_t offsetOf(std::uint64_t unit, std::size_t segmentLength) {
  const std::uint64_t offset = unit * SkeldaIntakeFile::kAlignment;
  return static_cast<std::size_t>(std::min<std::uint64_t>(offset, segmentLength));
}

/// Pages are made present in steps of this, so few calls in a hundred pay for a step...
constexpr std::uint64_t kStep = unitsOf(32);
/// ...this long before the tail is there: other threads go on meanwhile.
constexpr std::uint64_t kLead = unitsOf(12);
/// Pages behind which all is settled are given back in steps of this.
constexpr std::uint64_t kForgotten = unitsOf(16);

#ifdef MADV_POPULATE_WRITE
constexpr int kPopulate = MADV_POPULATE_WRITE;
#else
constexpr int kPopulate = 23;
#endif

/// Linux before 5.14 knows of no such advice: there each page comes with the first store to it.
constinit std::atomic<bool> canPopulate{true};

}  // namespace

/// What the first calls will write to.
void SkeldaIntakeFile::touchTail() const noexcept {
  const Place tail = this->tail();
  touch(tail.segment(), tail.units() / kStep * kStep, ((tail.units() + kLead) / kStep + 1) * kStep);
}

/// The step behind the one that the tail has come near the end of. At the end of its segment that
/// is the next one's first.
void SkeldaIntakeFile::touchAhead(Place from, Place to) const noexcept {
  const std::uint64_t known = (from.units() + kLead) / kStep;
  const std::uint64_t needed = (to.units() + kLead) / kStep;
  if (known == needed) [[likely]]
    return;
  if ((known + 1) * kStep * kAlignment < segmentLength_) {
    touch(from.segment(), (known + 1) * kStep, (needed + 1) * kStep);
  } else if (const auto next = (from.segment() + 1) % kSegmentCount; isFree(next)) {
    touch(next, 0, kStep);
  }
}

void SkeldaIntakeFile::touch(std::size_t segment, std::uint64_t begin,
                             std::uint64_t end) const noexcept {
  const std::size_t first = offsetOf(begin, segmentLength_);
  const std::size_t last = offsetOf(end, segmentLength_);
  if (first >= last || !canPopulate.load(std::memory_order_relaxed)) return;
  const int before = errno;
  if (::madvise(this->segment(segment) + first, last - first, kPopulate) != 0 && errno == EINVAL) {
    canPopulate.store(false, std::memory_order_relaxed);
  }
  errno = before;
}

/// What is in them stays: they are only no longer counted as this process's memory.
void SkeldaIntakeFile::forget(std::size_t segment, std::uint64_t begin,
                              std::uint64_t end) const noexcept {
  const std::size_t first = offsetOf(begin, segmentLength_);
  const std::size_t last = offsetOf(end, segmentLength_);
  if (first < last) ::madvise(this->segment(segment) + first, last - first, MADV_DONTNEED);
}

void SkeldaIntakeFile::forgetSettled(Place place, std::uint64_t units) const noexcept {
  const std::uint64_t first = place.units() / kForgotten;
  const std::uint64_t last = (place.units() + units) / kForgotten;
  if (first != last) forget(place.segment(), first * kForgotten, last * kForgotten);
}

/// The tail was there and is at the begin of the segment now.
void SkeldaIntakeFile::returnToBegin(Place from) const noexcept {
  if (from.units() < kForgotten) return;
  const std::uint64_t step = from.units() / kStep * kStep;
  forget(from.segment(), std::max(step, kStep), step + 2 * kStep);
  touch(from.segment(), 0, kStep);
}

/// What a start is about to look through comes from the disk in large pieces.
void SkeldaIntakeFile::readAhead(std::size_t segment, std::uint64_t end) const noexcept {
  if (end == 0) return;
  ::madvise(this->segment(segment), offsetOf(end, segmentLength_), MADV_WILLNEED);
}
