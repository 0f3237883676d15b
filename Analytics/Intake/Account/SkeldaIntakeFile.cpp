#include "Analytics/Intake/Account/SkeldaIntakeFile.h"

#include <sys/mman.h>

#include <algorithm>
#include <numeric>

#include "Analytics/Intake/Account/SkeldaIntakeLayout.h"

using namespace SkeldaIntakeLayout;

namespace {

/// Where so much is used and all of it settled, the segment begins anew in the same pages. Not
/// earlier: each time takes a generation. Before any of these pages is given back.
constexpr std::uint64_t kAnewUnits = (std::uint64_t{12} << 10) / SkeldaIntakeFile::kAlignment;

constexpr std::size_t indexOf(SkeldaIntakeFile::Kind kind) {
  return static_cast<std::size_t>(kind) - 1;
}

}  // namespace

// ---- Appending

char* SkeldaIntakeFile::segment(std::size_t index) const noexcept {
  return reinterpret_cast<char*>(page_) + kHeaderLength + index * segmentLength_;
}

SkeldaIntakeFile::Slot& SkeldaIntakeFile::slot(Place place) const noexcept {
  return *reinterpret_cast<Slot*>(segment(place.segment()) + place.units() * kAlignment);
}

SkeldaIntakeFile::Place SkeldaIntakeFile::tail() const noexcept {
  return Place(page_->tail.load(std::memory_order_acquire));
}

std::size_t SkeldaIntakeFile::longestPayload() const noexcept {
  return segmentLength_ - kRecordHeaderLength;
}

/// Of a segment that the tail is not in. Whoever finds one free and moves the tail there by
/// exchange knows that nobody did so in between: the tail never comes back to where it was.
bool SkeldaIntakeFile::isFree(std::size_t segment) const noexcept {
  return page_->settled[segment].load(std::memory_order_acquire) ==
         page_->left[segment].load(std::memory_order_acquire);
}

/// Before the tail goes on from there, so that it is known whatever comes next. Callers that do not
/// succeed in moving it have said an earlier place, which does not count.
void SkeldaIntakeFile::leave(Place place) noexcept {
  Word& left = page_->left[place.segment()];
  std::uint64_t known = left.load(std::memory_order_relaxed);
  while (known < place.word() && !left.compare_exchange_weak(known, place.word())) {
  }
}

SkeldaIntakeFile::Reservation SkeldaIntakeFile::reserve(Kind kind, std::size_t length) noexcept {
  if (length > longestPayload()) return {};
  const std::uint64_t units = unitsFor(length);
  const std::uint64_t unitsOfSegment = segmentLength_ / kAlignment;
  std::uint64_t seen = page_->tail.load(std::memory_order_acquire);
  Place place;
  for (;;) {
    place = Place(seen);
    if (place.units() + units > unitsOfSegment) {
      place = Place(place.generation() + 1, 0);
      if (!isFree(place.segment())) {
        const std::uint64_t now = page_->tail.load(std::memory_order_acquire);
        if (now == seen) return {};
        seen = now;
        continue;
      }
      leave(Place(seen));
    }
    if (page_->tail.compare_exchange_weak(seen, place.plus(units).word(), std::memory_order_acq_rel,
                                          std::memory_order_acquire)) {
      break;
    }
  }
  const std::uint64_t sequence =
      page_->account.accepted[indexOf(kind)].fetch_add(1, std::memory_order_relaxed) + 1;
  return {slot(place).payload(), place.word(), sequence};
}

SkeldaIntakeTicket SkeldaIntakeFile::publish(const Reservation& place, Kind kind,
                                             std::int64_t microsecondsSince1970,
                                             std::int64_t uptimeMilliseconds,
                                             std::size_t length) noexcept {
  Slot& record = slot(Place(place.place));
  record.length = static_cast<std::uint32_t>(length);
  record.boot = boot_;
  record.sequenceAndKind = place.sequence | static_cast<std::uint64_t>(kind) << Slot::kKindShift;
  record.microsecondsSince1970 = microsecondsSince1970;
  record.uptimeMilliseconds = uptimeMilliseconds;
  std::memset(place.payload + length, 0,
              static_cast<std::size_t>(record.units() * kAlignment - kRecordHeaderLength - length));
  record.checksum = checksumOf(record, Place(place.place), salt_);
  if (!isProtected_) {
    page_->account.unprotected[indexOf(kind)].fetch_add(1, std::memory_order_relaxed);
  }
  const State state{Place(place.place).generation(), 0, State::published};
  record.state.store(state.word(salt_), std::memory_order_release);
  // The record can be taken from here on, and others written over it.
  touchAhead(Place(place.place), Place(place.place).plus(unitsFor(length)));
  return place.place;
}

// ---- Taking

/// Whether a whole record lies there, settled or not, that an earlier run wrote.
bool SkeldaIntakeFile::isWhole(Place place) const noexcept {
  Slot& record = slot(place);
  const State state = State::of(record.state.load(std::memory_order_acquire), salt_);
  const std::uint64_t room = segmentLength_ / kAlignment - place.units();
  return state.generation == place.generation() &&
         (state.phase == State::published || state.phase == State::settled) &&
         record.length <= longestPayload() && record.units() <= room &&
         (record.kind() == 1 || record.kind() == 2) &&
         record.checksum == checksumOf(record, place, salt_);
}

/// The first record at or behind `from` that waits, or the end of what earlier runs left. A call
/// that a kill fell into left a hole, of a length that nobody knows: records are looked for at
/// every place where one can begin.
SkeldaIntakeFile::Place SkeldaIntakeFile::nextOfEarlierRuns(Place from) const noexcept {
  const Place end(earlierRuns_);
  while (from < end) {
    const Place left(page_->left[from.segment()].load(std::memory_order_relaxed));
    const bool isLast = from.generation() == end.generation();
    const bool hasMore =
        isLast || (left.generation() == from.generation() && !isFree(from.segment()));
    const std::uint64_t limit = isLast ? end.units() : left.units();
    if (!hasMore || from.units() + unitsFor(0) > limit) {
      from = isLast ? end : Place(from.generation() + 1, 0);
    } else if (!isWhole(from)) {
      from = from.plus(1);
    } else if (State::of(slot(from).state.load(std::memory_order_relaxed), salt_).phase ==
               State::published) {
      return from;
    } else {
      from = from.plus(slot(from).units());
    }
  }
  return end;
}

/// Where the next record begins or will begin. A segment that was left at a later generation since
/// was free before: all of this one is taken.
SkeldaIntakeFile::Place SkeldaIntakeFile::nextUntaken(Place tail) const noexcept {
  const Place at(cursor_);
  if (tail.generation() == at.generation()) return at;
  const std::uint64_t left = page_->left[at.segment()].load(std::memory_order_acquire);
  return left == at.word() || Place(left).generation() > at.generation()
             ? Place(at.generation() + 1, 0)
             : at;
}

/// With the tail that the place was found for: a record was reserved there then, and nobody writes
/// another over it before it is settled.
bool SkeldaIntakeFile::isUntaken(Place place, Place tail) const noexcept {
  if (alone_ || place >= tail) return false;
  const State state = State::of(slot(place).state.load(std::memory_order_acquire), salt_);
  if (state.generation != place.generation() || state.phase != State::published) return false;
  return state.attempts < kAttemptsBesideOthers || taken_ == 0;
}

bool SkeldaIntakeFile::hasUntaken() const noexcept {
  const platform::MutexLock lock(mutex_);
  const Place end = tail();
  return isUntaken(nextUntaken(end), end);
}

std::optional<SkeldaIntakeFile::Record> SkeldaIntakeFile::takeOldest(std::string room) {
  const platform::MutexLock lock(mutex_);
  const Place end = tail();
  const Place place = nextUntaken(end);
  if (!isUntaken(place, end)) return std::nullopt;
  Slot& slot = this->slot(place);
  Record record;
  record.ticket = place.word();
  record.kind = static_cast<Kind>(slot.kind());
  record.sequence = slot.sequence();
  record.microsecondsSince1970 = slot.microsecondsSince1970;
  record.uptimeMilliseconds = slot.uptimeMilliseconds;
  record.isReplayed = place.word() < earlierRuns_;
  record.isOfThisBoot = !record.isReplayed || (slot.boot == boot_ && boot_ != 0);
  record.payload = std::move(room);
  record.payload.assign(slot.payload(), slot.length);
  if (record.isReplayed) {
    State state = State::of(slot.state.load(std::memory_order_relaxed), salt_);
    if (state.attempts == 0) page_->account.replayed[indexOf(record.kind)].fetch_add(1);
    alone_ = state.attempts >= kAttemptsBesideOthers;
    ++state.attempts;
    slot.state.store(state.word(salt_), std::memory_order_release);
  }
  ++taken_;
  const Place behind = place.plus(slot.units());
  cursor_ = (record.isReplayed ? nextOfEarlierRuns(behind) : behind).word();
  return record;
}

std::size_t SkeldaIntakeFile::takenCount() const noexcept {
  const platform::MutexLock lock(mutex_);
  return taken_;
}

// ---- Settling

void SkeldaIntakeFile::setDidSettle(std::function<void()> didSettle) {
  didSettle_ = std::move(didSettle);
}

bool SkeldaIntakeFile::settle(SkeldaIntakeTicket ticket, SkeldaIntakeOutcome outcome) noexcept {
  const Place place(ticket);
  {
    const platform::MutexLock lock(mutex_);
    if (!settleLocked(place, outcome)) return false;
    if (taken_ > 0) --taken_;
    if (taken_ == 0) alone_ = false;
  }
  if (didSettle_) didSettle_();
  return true;
}

/// Every store is the last word on what came before it: the compiler keeps their order, and a kill
/// between any two leaves what the next start can complete.
bool SkeldaIntakeFile::settleLocked(Place place, SkeldaIntakeOutcome outcome) noexcept {
  if (place.word() == kSkeldaNoTicket || place >= tail() ||
      (place.units() + unitsFor(0)) * kAlignment > segmentLength_) {
    return false;
  }
  Slot& record = slot(place);
  State state = State::of(record.state.load(std::memory_order_acquire), salt_);
  if (state.generation != place.generation() || state.phase != State::published) return false;
  const std::size_t kind = record.kind() - std::size_t{1};
  const auto reason = static_cast<std::size_t>(outcome);
  SkeldaAccountPage::Counter& counter = page_->account.settled[kind][reason];
  const std::uint64_t value = counter.load(std::memory_order_relaxed) + 1;

  page_->intentCounter.store(kind * kSkeldaIntakeOutcomeCount + reason, std::memory_order_release);
  page_->intentValue.store(value, std::memory_order_release);
  page_->intentTicket.store(place.word(), std::memory_order_release);
  state.phase = State::settled;
  record.state.store(state.word(salt_), std::memory_order_release);
  counter.store(value, std::memory_order_release);
  page_->intentTicket.store(kSkeldaNoTicket, std::memory_order_release);
  countSettled(place, record.units());
  return true;
}

void SkeldaIntakeFile::countSettled(Place place, std::uint64_t units) noexcept {
  Word& settled = page_->settled[place.segment()];
  Place now(settled.load(std::memory_order_relaxed));
  if (now.generation() != place.generation()) now = Place(place.generation(), 0);
  // Before the store that lets callers into the segment: until then the pages are at rest.
  forgetSettled(place, units);
  settled.store(now.plus(units).word(), std::memory_order_release);
  bool isOver = false;
  for (Waiter* waiter = waiters_; waiter != nullptr; waiter = waiter->next) {
    if (place.word() >= waiter->before) continue;
    waiter->units -= units;
    isOver = isOver || waiter->units == 0;
  }
  if (isOver) waited_.notifyAll();
  beginAnew();
}

/// Where all is settled and the tail stands well inside its segment, it goes back to the begin, so
/// that a pipeline that keeps up touches the same few pages again and again. Places of other
/// segments must be settled too: what waits is never more than four generations apart.
void SkeldaIntakeFile::beginAnew() noexcept {
  std::uint64_t seen = tail().word();
  const Place end(seen);
  if (end.units() < kAnewUnits) return;
  if (page_->settled[end.segment()].load(std::memory_order_relaxed) != seen) return;
  for (std::size_t other = 1; other < kSegmentCount; ++other) {
    if (!isFree((end.segment() + other) % kSegmentCount)) return;
  }
  const std::uint64_t anew = Place(end.generation() + kSegmentCount, 0).word();
  if (!page_->tail.compare_exchange_strong(seen, anew, std::memory_order_acq_rel)) return;
  cursor_ = anew;
  returnToBegin(end);
}

// ---- Waiting

std::uint64_t SkeldaIntakeFile::waitingCount(Kind kind) const noexcept {
  const auto& account = page_->account;
  const auto& settled = account.settled[indexOf(kind)];
  // Settled first: whatever is counted there was accepted before.
  const std::uint64_t done = std::accumulate(
      settled.begin(), settled.end(), account.cutOff[indexOf(kind)].load(),
      [](std::uint64_t sum, const SkeldaAccountPage::Counter& one) { return sum + one.load(); });
  return account.accepted[indexOf(kind)].load() - done;
}

/// Of records before that place, which the tail has reached. Whatever was settled lies before it.
std::uint64_t SkeldaIntakeFile::unsettledUnits(Place before) const noexcept {
  std::uint64_t units = 0;
  for (std::size_t index = 0; index < kSegmentCount; ++index) {
    const Place left(page_->left[index].load(std::memory_order_acquire));
    const Place end = index == before.segment() ? before : left;
    if (end > before) continue;
    const Place settled(page_->settled[index].load(std::memory_order_acquire));
    units += end.units();
    if (settled.generation() == end.generation()) units -= settled.units();
  }
  return units;
}

bool SkeldaIntakeFile::waitUntilSettled(std::chrono::steady_clock::time_point deadline) {
  platform::MutexLock lock(mutex_);
  Waiter me{tail().word(), 0, nullptr};
  me.units = unsettledUnits(Place(me.before));
  if (me.units == 0) return true;
  me.next = std::exchange(waiters_, &me);
  while (me.units > 0 && waited_.waitUntil(lock, deadline)) {
  }
  Waiter** link = &waiters_;
  while (*link != &me) link = &(*link)->next;
  *link = me.next;
  return me.units == 0;
}

void SkeldaIntakeFile::setServer(std::string_view address) noexcept {
  SkeldaIntakeLayout::setServer(*page_, address);
}

SkeldaAccountPage& SkeldaIntakeFile::page() noexcept {
  return page_->account;
}

SkeldaIntakeFile::~SkeldaIntakeFile() {
  if (page_ != nullptr) ::munmap(page_, mappedLength_);
}
