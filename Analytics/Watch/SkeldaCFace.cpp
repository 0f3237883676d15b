#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "Skelda_Watch/SkeldaOptional.h"
#include "Skelda_Watch/Skelda_Watch.h"
#include "Skelda_Watch/skelda_watch.h"

struct skelda_value {
  SkeldaValue value;
};

namespace {

/// A thread that is cancelled inside a call would unwind through code that nothing may be thrown
/// through, which ends the process: it is cancelled behind the call.
class CancelledLater {
 public:
  CancelledLater() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~CancelledLater() { ::pthread_setcancelstate(before_, nullptr); }
  CancelledLater(const CancelledLater&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

/// What every call goes through. What is thrown, for want of memory, becomes `refused`.
template <class Result, class Body>
Result entry(Result refused, Body&& body) noexcept {
  const CancelledLater cancelledLater;
  try {
    return body();
  } catch (...) {
    return refused;
  }
}

template <class Body>
void entry(Body&& body) noexcept {
  entry(false, [&] {
    body();
    return true;
  });
}

SkeldaValue copyOf(const skelda_value* value) {
  return value == nullptr ? SkeldaValue() : value->value;
}

skelda_value* made(SkeldaValue (*empty)()) noexcept {
  return entry(static_cast<skelda_value*>(nullptr), [&] { return new skelda_value{empty()}; });
}

template <class Content>
bool put(skelda_value* container, const char* key, const Content& content) noexcept {
  return entry(false, [&] {
    if (container == nullptr) return false;
    if (auto* const dictionary = container->value.dictionary(); dictionary && key) {
      dictionary->set(key, SkeldaValue(content));
      return true;
    }
    auto* const array = container->value.array();
    if (array == nullptr || key != nullptr) return false;
    array->push_back(SkeldaValue(content));
    return true;
  });
}

/// Three decades are for ever, and no clock overflows by them.
std::chrono::milliseconds atMost(std::int64_t milliseconds) noexcept {
  return std::chrono::milliseconds(std::clamp<std::int64_t>(milliseconds, 0, 1'000'000'000'000));
}

skelda_account_records recordsOf(const SkeldaAccount::Records& records) noexcept {
  return {.accepted = records.accepted,
          .stored = records.stored,
          .waiting = records.waiting,
          .cut_off = records.cutOff,
          .dropped_by_session_cap = records.droppedBySessionCap,
          .dropped_by_session_duration = records.droppedBySessionDuration,
          .dropped_as_repeated = records.droppedAsRepeated,
          .dropped_not_utf8 = records.droppedNotUTF8,
          .dropped_wrong_kind = records.droppedWrongKind,
          .dropped_by_serializer = records.droppedBySerializer,
          .dropped_other_key = records.droppedOtherKey,
          .dropped_other_version = records.droppedOtherVersion,
          .dropped_replayed_too_often = records.droppedReplayedTooOften,
          .replayed = records.replayed,
          .unprotected = records.unprotected};
}

// Both are numbers of 64 bits: what the account learns is told in C, too, at the end of the struct.
static_assert(sizeof(skelda_account) == sizeof(SkeldaAccount));

skelda_account accountNow() noexcept {
  const auto now = SkeldaWatch::account();
  return {.events = recordsOf(now.events),
          .choices = recordsOf(now.choices),
          .refused_no_key = now.refused.noKey,
          .refused_not_an_extension = now.refused.notAnExtension,
          .refused_bad_name = now.refused.badName,
          .refused_inside_log_sink = now.refused.insideLogSink,
          .refused_other_process = now.refused.otherProcess,
          .refused_over_the_bound = now.refused.overTheBound,
          .refused_forked_child = now.refused.forkedChild,
          .refused_too_deep = now.refused.tooDeep,
          .refused_too_long = now.refused.tooLong,
          .refused_no_memory = now.refused.noMemory,
          .logs_commited = now.logs.commited,
          .logs_stored = now.logs.stored,
          .logs_waiting = now.logs.waiting,
          .logs_removed_folder_full = now.logs.removedFolderFull,
          .logs_removed_third_failed_try = now.logs.removedThirdFailedTry,
          .logs_removed_unreadable = now.logs.removedUnreadable,
          .blocks_stored = now.blocks.stored,
          .blocks_acknowledged = now.blocks.acknowledged,
          .blocks_rejected = now.blocks.rejected,
          .blocks_waiting = now.blocks.waiting,
          .blocks_removed_over_limit = now.blocks.removedOverLimit,
          .blocks_removed_other_key = now.blocks.removedOtherKey,
          .blocks_removed_damaged = now.blocks.removedDamaged,
          .frames_written = now.framesWritten,
          .frames_lost = now.framesLost,
          .synchronizations_failed = now.synchronizationsFailed,
          .bytes_sent = now.bytesSent,
          .requests = now.requests,
          .last_answer = now.lastAnswer,
          .last_answer_time = now.lastAnswerTime,
          .log_lines_dropped = now.logLinesDropped,
          .inconsistent_starts = now.inconsistentStarts};
}

}  // namespace

// -- Values

skelda_value* skelda_dictionary_new() {
  return made([] { return SkeldaValue(SkeldaDictionary()); });
}

skelda_value* skelda_array_new() {
  return made([] { return SkeldaValue(SkeldaArray()); });
}

void skelda_value_free(skelda_value* value) {
  entry([&] { delete value; });
}

bool skelda_put_text(skelda_value* container, const char* key, const char* text) {
  return text != nullptr && put(container, key, text);
}

bool skelda_put_integer(skelda_value* container, const char* key, int64_t integer) {
  return put(container, key, integer);
}

bool skelda_put_real(skelda_value* container, const char* key, double real) {
  return put(container, key, real);
}

bool skelda_put_boolean(skelda_value* container, const char* key, bool boolean) {
  return put(container, key, boolean);
}

bool skelda_put_date(skelda_value* container, const char* key, int64_t microseconds_since_1970) {
  using skelda::platform::Date;
  return put(container, key, Date(Date::Microseconds(microseconds_since_1970)));
}

bool skelda_put_value(skelda_value* container, const char* key, const skelda_value* value) {
  return value != nullptr && put(container, key, value->value);
}

// -- Events

bool skelda_log_event(const char* name, const skelda_value* parameters) {
  return entry(false, [&] { return SkeldaWatch::logWatchEvent(name, copyOf(parameters)) == 1; });
}

bool skelda_start_timed_event(const char* name, const skelda_value* parameters) {
  return entry(false, [&] { return SkeldaWatch::startTimedEvent(name, copyOf(parameters)) == 1; });
}

bool skelda_end_timed_event(const char* name, const skelda_value* parameters) {
  return entry(false, [&] { return SkeldaWatch::endTimedEvent(name, copyOf(parameters)) == 1; });
}

bool skelda_log_purchase(const char* name, const skelda_value* transaction,
                         const skelda_value* parameters) {
  return entry(false, [&] {
    return SkeldaWatch::logPurchase(name, copyOf(transaction), copyOf(parameters)) == 1;
  });
}

bool skelda_wait_until_stored(int64_t milliseconds) {
  return entry(false, [&] { return SkeldaWatch::waitUntilStored(atMost(milliseconds)); });
}

void skelda_set_server_url(const char* url) {
  entry([&] { SkeldaWatch::setServerURL(url); });
}

// -- The user

void skelda_set_user_id(const char* user_id) {
  entry([&] { SkeldaWatch::setUserID(user_id); });
}

void skelda_user_property_set(const char* name, const char* value) {
  entry([&] { SkeldaUserProperties::setValue(name, value); });
}

void skelda_user_property_set_values(const char* name, const skelda_value* values) {
  entry([&] { SkeldaUserProperties::setValues(name, copyOf(values)); });
}

void skelda_user_property_add(const char* name, const char* value) {
  entry([&] { SkeldaUserProperties::addValue(name, value); });
}

void skelda_user_property_add_values(const char* name, const skelda_value* values) {
  entry([&] { SkeldaUserProperties::addValues(name, copyOf(values)); });
}

void skelda_user_property_remove_value(const char* name, const char* value) {
  entry([&] { SkeldaUserProperties::removeValue(name, value); });
}

void skelda_user_property_remove_values(const char* name, const skelda_value* values) {
  entry([&] { SkeldaUserProperties::removeValues(name, copyOf(values)); });
}

void skelda_user_property_remove(const char* name) {
  entry([&] { SkeldaUserProperties::remove(name); });
}

void skelda_user_property_flag(const char* name) {
  entry([&] { SkeldaUserProperties::flag(name); });
}

bool skelda_update_consent(bool is_gdpr_scope, const skelda_value* consent_strings,
                           bool is_licn_enabled) {
  return entry(false, [&] {
    SkeldaDictionary strings;
    if (consent_strings != nullptr) {
      const auto* const given = consent_strings->value.dictionary();
      if (given == nullptr) return false;
      strings = *given;
    }
    return SkeldaConsent::updateConsentInformation(
        {is_gdpr_scope, std::move(strings), is_licn_enabled});
  });
}

void skelda_set_data_sale_opt_out(bool opt_out) {
  entry([&] { SkeldaCCPA::setDataSaleOptOut(opt_out); });
}

void skelda_request_deletion() {
  entry([] { SkeldaCCPA::setDelete(); });
}

// -- The phone and the network

void skelda_listen_for_phone(const char* socket_path) {
  // A path that is missing is refused like one that is empty, and said.
  entry([&] { SkeldaListenForPhone(socket_path == nullptr ? "" : socket_path); });
}

bool skelda_follow_network() {
  return entry(false, [] { return SkeldaReachabilityLink(); });
}

// -- The account

bool skelda_get_account(skelda_account* account, size_t size) {
  if (account == nullptr) return false;
  return entry(false, [&] {
    const auto now = accountNow();
    std::memset(static_cast<void*>(account), 0, size);
    std::memcpy(account, &now, std::min(size, sizeof now));
    return true;
  });
}

char* skelda_status() {
  return entry(static_cast<char*>(nullptr), [] {
    const auto status = SkeldaWatch::status();
    SkeldaArray findings;
    for (const auto& [code, isBlocking, text, next] : status.findings) {
      findings.push_back(
          {{"code", code}, {"isBlocking", isBlocking}, {"text", text}, {"next", next}});
    }
    const SkeldaValue all{{"bundle", status.bundle},     {"storage", status.storage},
                          {"server", status.server},     {"holder", status.holder},
                          {"holdsUp", status.holdsUp()}, {"findings", std::move(findings)}};
    return ::strdup(all.description().c_str());
  });
}

void skelda_text_free(char* text) {
  std::free(text);
}

// -- The log

void skelda_set_log_sink(skelda_log_sink sink, void* context) {
  entry([&] {
    if (sink == nullptr) return SkeldaLogOutput::setSink({});
    SkeldaLogOutput::setSink([sink, context](std::string_view line) {
      sink(std::string(line).c_str(), line.size(), context);
    });
  });
}

void skelda_reset_log_sink() {
  entry([] { SkeldaLogOutput::resetSink(); });
}

bool skelda_flush_log(int64_t milliseconds) {
  return entry(false, [&] { return SkeldaLogOutput::flush(atMost(milliseconds)); });
}
