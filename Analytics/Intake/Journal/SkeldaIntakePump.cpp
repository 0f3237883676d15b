#include "Analytics/Intake/Journal/SkeldaIntakePump.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaTransaction.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentCore.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaHostText.h"
#include "Analytics/Utils/SkeldaDateUtil.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Dispatch/Wanted.h"

namespace {

using Call = SkeldaIntakeCall;
using Record = SkeldaIntakeFile::Record;

platform::Date dateOf(const Record& record) {
  return platform::Date(platform::Date::Microseconds(record.microsecondsSince1970));
}

/// The uptime of another boot means nothing in this one: such a record gets that of its replay.
SkeldaIntakeOrigin originOf(const Record& record) {
  return {record.ticket, SkeldaDateUtil::timeIntervalSince1970InMilliseconds(dateOf(record)),
          record.isOfThisBoot ? record.uptimeMilliseconds : SkeldaUtil::uptimeInMilliseconds()};
}

/// What a purchase was paid with; null, and the record settled, where the host gave something else.
std::shared_ptr<SkeldaTransaction> transactionOf(const platform::Value& given,
                                                 SkeldaIntakeTicket ticket) {
  if (given.dictionary() != nullptr && skelda::isWellFormedText(given)) {
    return SkeldaTransaction::transactionUsingUserDictionary(*given.dictionary());
  }
  SKELDA_LOG(1,
             "Skelda: Purchase not logged -- its transaction must be a dictionary of UTF-8 text");
  skelda::settleRefused(ticket, given, {});
  return nullptr;
}

/// The store of consents heard it when it was said. Only what a process said that is gone is told
/// again, and only where this one has not said anything newer.
void takeConsent(const Call& call, const Record& record) {
  const auto core = SkeldaConsentCore::sharedInstance();
  const auto* const strings = call.values[1].dictionary();
  if (record.isReplayed && strings != nullptr &&
      core->consentProvided() == SkeldaConsentCore::kNotProvided) {
    core->updateUserConsent(
        SkeldaConsent(call.values[0].boolValue(), *strings, call.values[2].boolValue()));
  }
  SkeldaAccounting::settle(record.ticket, SkeldaIntakeOutcome::stored);
}

}  // namespace

std::shared_ptr<SkeldaIntakePump> SkeldaIntakePump::pumpOf(std::shared_ptr<SkeldaIntakeFile> file) {
  return made(new SkeldaIntakePump(std::move(file)));
}

SkeldaIntakePump::SkeldaIntakePump(std::shared_ptr<SkeldaIntakeFile> file)
    : SkeldaActor("SkeldaIntakePump"),
      file_(std::move(file)),
      replaysLeft_(file_->opening().waiting[0] + file_->opening().waiting[1]) {}

SkeldaIntakePump::~SkeldaIntakePump() = default;

void SkeldaIntakePump::didInit() {
  file_->setDidSettle([weak = std::weak_ptr(selfOf(this))] {
    if (const auto self = weak.lock()) self->didSettle();
  });
}

// -- Taking calls

bool SkeldaIntakePump::accept(Call::Kind kind, Call::Values values) noexcept {
  const auto size = Call::sizeOf(values);
  if (size.refusal) return refuse(*size.refusal), false;
  if (size.length > file_->longestPayload()) return refuse(SkeldaRefusal::tooLong), false;
  const auto ticket = file_->append(
      Call::isEvent(kind) ? SkeldaIntakeFile::Kind::event : SkeldaIntakeFile::Kind::choice,
      platform::Date::now().microsecondsSince1970().count(), SkeldaUtil::uptimeInMilliseconds(),
      size.length, [&](char* place) { Call::write(place, kind, values); });
  if (ticket == kSkeldaNoTicket) return refuse(SkeldaRefusal::overTheBound), false;
  signal();
  return true;
}

void SkeldaIntakePump::refuse(SkeldaRefusal reason) noexcept {
  SkeldaAccounting::refused(reason);
  skelda::guardedResult(false, [&] {
    if (reason == SkeldaRefusal::tooDeep) {
      SKELDA_LOG(0, "Skelda: Not logged -- values may not be nested deeper than {} levels.",
                 Call::kDeepest);
    } else if (reason == SkeldaRefusal::tooLong) {
      SKELDA_LOG(0, "Skelda: Not logged -- a call may not take up more than {} bytes.",
                 std::min(Call::kLongest, file_->longestPayload()));
    } else if (!overflowed_.exchange(true)) {
      SKELDA_LOG(0,
                 "Skelda: Not logged -- {} KiB wait to be written, calls are refused until some "
                 "of it is",
                 file_->capacity() / 1024);
    }
    return true;
  });
}

// -- Waking the pump
//
// signalled_ is true from a signal to the next run of the pump, which clears it before it looks for
// records. A caller appends its record before it signals, so one that finds the flag set is seen:
// the run that clears the flag reads the caller's exchange, or a later one, and with it the record.
// A caller that finds it clear posts a run. Before the start nobody posts: a caller that comes
// after the first run's clearing sees that the pump has started, one that comes before it is seen
// by that run.

void SkeldaIntakePump::signal() noexcept {
  if (signalled_.exchange(true, std::memory_order_acq_rel) || !isStarted()) {
    // What was posted may wait for a thread that the system has refused, with nobody else to ask.
    return platform::Wanted::afterSubmission();
  }
  try {
    post<&SkeldaIntakePump::onqueue_pump>();
  } catch (...) {
    // No memory for the post. The record is kept all the same; the next signal tries again.
    signalled_.store(false, std::memory_order_release);
    SkeldaUtil::handleException(std::current_exception());
  }
}

void SkeldaIntakePump::start(Sources sources) {
  started_.store(true, std::memory_order_release);
  asyncBlock([self = selfOf(this), sources = std::move(sources)]() mutable {
    self->onqueue_start(sources);
  });
}

void SkeldaIntakePump::onqueue_start(Sources& sources) {
  SKELDA_ON_QUEUE();
  sources_ = std::move(sources);
  if (sources_.beforeFirst) sources_.beforeFirst();
  onqueue_pump();
}

void SkeldaIntakePump::onqueue_pump() {
  SKELDA_ON_QUEUE();
  signalled_.exchange(false, std::memory_order_acq_rel);
  std::string payload;
  while (hasRoom()) {
    auto record = file_->takeOldest(std::move(payload));
    // A record that earlier starts died of goes alone: it waits until all others are settled.
    if (!record && replaysLeft_ != 0 && file_->takenCount() != 0) {
      waitsForRoom_.exchange(1, std::memory_order_acq_rel);
      record = file_->takeOldest();
    }
    if (!record) {
      // Nothing, or one that is being written at this moment and whose caller will signal.
      overflowed_.store(false, std::memory_order_relaxed);
      return;
    }
    if (record->isReplayed && replaysLeft_ != 0) --replaysLeft_;
    // What one record throws is not the next one's loss. It is not settled: the next start takes
    // it up again.
    skelda::guardedResult(false, [&] { return onqueue_feed(*record), true; });
    payload = std::move(record->payload);
  }
}

// -- Waiting for room
//
// With the window full the pump sets waitsForRoom_ and looks once more; whoever settles a record
// looks at the flag after it. Both by an exchange: whichever comes second in the flag's own order
// sees what the other did before it, so either the pump finds the room or the settler the flag. The
// pump waits until half of the window is free, so that it is not woken for every record.

bool SkeldaIntakePump::hasRoom() noexcept {
  if (file_->takenCount() < kWindow) return true;
  waitsForRoom_.exchange(1, std::memory_order_acq_rel);
  if (file_->takenCount() > kWindow / 2) return false;
  waitsForRoom_.exchange(0, std::memory_order_acq_rel);
  return true;
}

void SkeldaIntakePump::didSettle() noexcept {
  if (waitsForRoom_.fetch_or(0, std::memory_order_acq_rel) == 0) return;
  if (file_->takenCount() > kWindow / 2) return;
  if (waitsForRoom_.exchange(0, std::memory_order_acq_rel) != 0) signal();
}

// -- Feeding

/// Hands the call to its source, once the one that was fed before has passed on all it was given.
/// False where there is no such source.
template <class Source, class Feed>
bool SkeldaIntakePump::onqueue_turnTo(const std::shared_ptr<Source>& source, Feed&& feed) {
  if (source == nullptr) return false;
  if (lastFed_ != source.get()) {
    if (lastFedActor_ != nullptr) lastFedActor_->syncBlock([] {});
    lastFed_ = source.get();
    lastFedActor_ = dynamic_cast<SkeldaActor*>(source.get());
  }
  feed(*source);
  return true;
}

void SkeldaIntakePump::onqueue_feed(const Record& record) {
  SKELDA_ON_QUEUE();
  auto call = Call::read(record.payload);
  if (call && onqueue_hand(*call, record)) return;
  SKELDA_LOG(1, "Skelda: a call of {} bytes has no source, or cannot be read back",
             record.payload.size());
  SkeldaAccounting::settle(record.ticket, SkeldaIntakeOutcome::serializer);
}

bool SkeldaIntakePump::onqueue_hand(Call& call, const Record& record) {
  SKELDA_ON_QUEUE();
  using Kind = Call::Kind;
  const auto origin = originOf(record);
  auto* const v = call.values.data();
  const auto event = [&](auto feed) { return onqueue_turnTo(sources_.events, feed); };
  switch (call.kind) {
    case Kind::event:
    case Kind::startTimedEvent:
      return event([&](auto& source) {
        source.recordEvent(std::move(v[0]), std::move(v[1]), call.kind == Kind::startTimedEvent,
                           dateOf(record), origin);
      });
    case Kind::endTimedEvent:
      return event([&](auto& source) {
        source.endTimedEvent(std::move(v[0]), std::move(v[1]), dateOf(record), origin);
      });
    case Kind::purchase:
      return event([&](auto& source) {
        auto transaction = transactionOf(v[2], record.ticket);
        if (transaction == nullptr) return;
        source.recordEvent(std::move(v[0]), std::move(v[1]), /*timed=*/false,
                           std::move(transaction), dateOf(record), origin);
      });
    default:
      return onqueue_handChoice(call, record);
  }
}

/// What is no event: what the host says of its user.
bool SkeldaIntakePump::onqueue_handChoice(Call& call, const Record& record) {
  SKELDA_ON_QUEUE();
  using Kind = Call::Kind;
  const auto origin = originOf(record);
  auto* const v = call.values.data();
  const auto property = [&](auto feed) { return onqueue_turnTo(sources_.userProperties, feed); };
  using OfTwo =
      void (ISkeldaUserPropertiesSource::*)(platform::Value, platform::Value, SkeldaIntakeOrigin);
  const auto ofTwo = [&](OfTwo method) {
    return property(
        [&](auto& source) { (source.*method)(std::move(v[0]), std::move(v[1]), origin); });
  };
  switch (call.kind) {
    case Kind::setProperties:
      return ofTwo(&ISkeldaUserPropertiesSource::setUserProperties);
    case Kind::setPropertyValue:
      return ofTwo(&ISkeldaUserPropertiesSource::setUserPropertiesValue);
    case Kind::addProperties:
      return ofTwo(&ISkeldaUserPropertiesSource::addUserProperties);
    case Kind::removeProperties:
      return ofTwo(&ISkeldaUserPropertiesSource::removeUserProperties);
    case Kind::clearProperties:
      return property([&](auto& source) { source.removeUserProperties(std::move(v[0]), origin); });
    case Kind::flagProperties:
      return property([&](auto& source) { source.flagUserProperties(std::move(v[0]), origin); });
    case Kind::optOut:
      return onqueue_turnTo(sources_.privacy,
                            [&](auto& source) { source.setCCPAOptOut(v[0].boolValue(), origin); });
    case Kind::deletion:
      return onqueue_turnTo(sources_.privacy, [&](auto& source) { source.setCCPADelete(origin); });
    case Kind::userId:
      return onqueue_turnTo(sources_.user,
                            [&](auto& source) { source.setUserId(std::move(v[0]), origin); });
    case Kind::consent:
      return takeConsent(call, record), true;
    default:
      return false;
  }
}
