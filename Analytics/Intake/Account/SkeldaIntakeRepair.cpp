#include "Analytics/Intake/Account/SkeldaIntakeRepair.h"

#include <algorithm>

#include "Analytics/Intake/Account/SkeldaIntakeLayout.h"

using namespace SkeldaIntakeLayout;

void SkeldaIntakeRepair::run() {
  const platform::MutexLock lock(file_.mutex_);
  completeIntent();
  file_.earlierRuns_ = file_.page_->tail.load();
  const Place tail(file_.earlierRuns_);
  for (std::size_t i = 0; i < SkeldaIntakeFile::kSegmentCount; ++i) {
    const Place end = i == tail.segment() ? tail : Place(file_.page_->left[i].load());
    if (file_.page_->settled[i].load() != end.word()) file_.readAhead(i, end.units());
  }
  const std::uint64_t oldest =
      std::max(tail.generation(), Place::kFirstGeneration + SkeldaIntakeFile::kSegmentCount - 1) -
      (SkeldaIntakeFile::kSegmentCount - 1);
  Places waiting;
  for (Place at = file_.nextOfEarlierRuns(Place(oldest, 0)); at < tail;
       at = file_.nextOfEarlierRuns(at.plus(file_.slot(at).units()))) {
    waiting.push_back(at);
    ++file_.opening_.waiting[file_.slot(at).kind() - std::size_t{1}];
  }
  measure(waiting);
  balance();
  for (const Place at : waiting) dropOrKeep(at);
  if (file_.page_->keyHash.load() != keyHash_) file_.page_->keyHash.store(keyHash_);
  if (file_.page_->version != version_) file_.page_->version = version_;
  const bool isEmpty = file_.opening_.waiting[0] + file_.opening_.waiting[1] == 0;
  file_.cursor_ =
      isEmpty ? file_.page_->tail.load() : file_.nextOfEarlierRuns(Place(oldest, 0)).word();
}

void SkeldaIntakeRepair::completeIntent() {
  Page& page = *file_.page_;
  const Place place(page.intentTicket.load());
  const std::uint64_t counter = page.intentCounter.load();
  if (place.word() == kSkeldaNoTicket) return;
  if (place < file_.tail() && counter < 2 * kSkeldaIntakeOutcomeCount &&
      (place.units() + unitsFor(0)) * SkeldaIntakeFile::kAlignment <= file_.segmentLength_) {
    Word& word = file_.slot(place).state;
    State state = State::of(word.load(), file_.salt_);
    if (state.generation == place.generation()) {
      state.phase = State::settled;
      word.store(state.word(file_.salt_));
    }
    const auto index = static_cast<std::size_t>(counter);
    page.account.settled[index / kSkeldaIntakeOutcomeCount][index % kSkeldaIntakeOutcomeCount]
        .store(page.intentValue.load());
  }
  page.intentTicket.store(kSkeldaNoTicket);
}

/// All that is not a waiting record counts as settled: holes, too.
void SkeldaIntakeRepair::measure(const Places& waiting) {
  Page& page = *file_.page_;
  const Place tail = file_.tail();
  for (std::size_t i = 0; i < SkeldaIntakeFile::kSegmentCount; ++i) {
    const std::uint64_t end = i == tail.segment() ? tail.word() : page.left[i].load();
    std::uint64_t units = 0;
    for (const Place at : waiting) units += at.segment() == i ? file_.slot(at).units() : 0;
    page.settled[i].store(end - units);
  }
}

void SkeldaIntakeRepair::balance() {
  SkeldaAccountPage& account = file_.page_->account;
  for (std::size_t kind = 0; kind < 2; ++kind) {
    std::uint64_t known = file_.opening_.waiting[kind] + account.cutOff[kind].load();
    for (const auto& settled : account.settled[kind]) known += settled.load();
    const std::uint64_t accepted = account.accepted[kind].load();
    const std::uint64_t missing = accepted > known ? accepted - known : 0;
    if (accepted < known || missing > SkeldaIntakeFile::kMostCutOff) {
      file_.opening_.wasInconsistent = true;
    }
    if (accepted < known) account.accepted[kind].store(known);
    account.cutOff[kind] += missing;
    file_.opening_.cutOff[kind] = missing;
  }
  if (file_.opening_.wasInconsistent) ++account.inconsistent;
}

void SkeldaIntakeRepair::dropOrKeep(Place at) {
  const State state = State::of(file_.slot(at).state.load(), file_.salt_);
  SkeldaIntakeFile::Opening& opening = file_.opening_;
  const std::size_t kind = file_.slot(at).kind() - std::size_t{1};
  const auto drop = [&](SkeldaIntakeOutcome outcome, std::uint64_t& count) REQUIRES(file_.mutex_) {
    if (!file_.settleLocked(at, outcome)) return;
    ++count;
    --opening.waiting[kind];
  };
  if (file_.page_->version != version_) {
    drop(SkeldaIntakeOutcome::otherVersion, opening.otherVersion);
  } else if (file_.page_->keyHash.load() != keyHash_) {
    drop(SkeldaIntakeOutcome::otherKey, opening.otherKey);
  } else if (state.attempts >=
             SkeldaIntakeFile::kAttemptsBesideOthers + SkeldaIntakeFile::kAttemptsAlone) {
    drop(SkeldaIntakeOutcome::replayedTooOften, opening.replayedTooOften);
  }
}
