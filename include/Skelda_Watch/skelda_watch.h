#ifndef SKELDA_WATCH_H
#define SKELDA_WATCH_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#include "Platform/Base/Export.h"

/// The analytics agent of a watch application, for C and for whatever can call C. What a call does,
/// promises and refuses is said in SkeldaWatch.h and the headers beside it; this is the same agent.
///
/// Threads: any, at any time. A value that is being changed belongs to one thread; several may read
/// it. Calls are no cancellation points.
/// Errors: nothing is thrown and errno means nothing. A call that answers false had no effect; why
/// is said in the log and counted in the account. NULL is answered everywhere, like a text that is
/// missing; what has no memory is refused.
/// Ownership: every pointer that is given stays the caller's, is only read, and may go when the
/// call has returned (but for a log sink and its context). What a call hands out is the caller's,
/// and goes by the call that is named there. Text is UTF-8 and ends with a NUL.

#ifdef __cplusplus
extern "C" {
#endif

/// "@(#)PROGRAM:Skelda_Watch  PROJECT:Skelda-1" and a line feed.
SKELDA_EXPORT extern const char Skelda_WatchVersionString[];
/// 1.0
SKELDA_EXPORT extern const double Skelda_WatchVersionNumber;

// -- Values: what an event's parameters are made of

/// A dictionary or an array.
typedef struct skelda_value skelda_value;

/// An empty one, which skelda_value_free() ends; NULL without memory.
SKELDA_EXPORT skelda_value* skelda_dictionary_new(void);
SKELDA_EXPORT skelda_value* skelda_array_new(void);
/// NULL is fine.
SKELDA_EXPORT void skelda_value_free(skelda_value* value);

/// Stores under `key` in a dictionary, in place of what stands there; appends to an array, for
/// which `key` is NULL. False, and nothing is changed, where `key` is not of the kind that the
/// container needs, or where the container or what is to go into it is NULL.
SKELDA_EXPORT bool skelda_put_text(skelda_value* container, const char* key, const char* text);
SKELDA_EXPORT bool skelda_put_integer(skelda_value* container, const char* key, int64_t integer);
SKELDA_EXPORT bool skelda_put_real(skelda_value* container, const char* key, double real);
SKELDA_EXPORT bool skelda_put_boolean(skelda_value* container, const char* key, bool boolean);
SKELDA_EXPORT bool skelda_put_date(skelda_value* container, const char* key,
                                   int64_t microseconds_since_1970);
/// A copy of `value`.
SKELDA_EXPORT bool skelda_put_value(skelda_value* container, const char* key,
                                    const skelda_value* value);

// -- Events. True: kept. Parameters are a dictionary, or NULL for none.

SKELDA_EXPORT bool skelda_log_event(const char* name, const skelda_value* parameters);
SKELDA_EXPORT bool skelda_start_timed_event(const char* name, const skelda_value* parameters);
SKELDA_EXPORT bool skelda_end_timed_event(const char* name, const skelda_value* parameters);
/// `transaction` is a dictionary of texts; SkeldaWatch::logPurchase() lists its keys.
SKELDA_EXPORT bool skelda_log_purchase(const char* name, const skelda_value* transaction,
                                       const skelda_value* parameters);

/// Waits as long as it takes, but `milliseconds` at most, until all that was accepted before is on
/// disk or named in the account; INT64_MAX waits for ever, what is not positive not at all.
SKELDA_EXPORT bool skelda_wait_until_stored(int64_t milliseconds);

/// The address that logs are uploaded to. Best before the first event.
SKELDA_EXPORT void skelda_set_server_url(const char* url);

// -- The user: who they are, what is known of them, what they decide

/// NULL: nobody any more.
SKELDA_EXPORT void skelda_set_user_id(const char* user_id);

#define SKELDA_PROPERTY_CURRENCY_PREFERENCE "Skelda.CurrencyPreference"
#define SKELDA_PROPERTY_PURCHASER "Skelda.Purchaser"
#define SKELDA_PROPERTY_REGISTERED_USER "Skelda.RegisteredUser"
#define SKELDA_PROPERTY_SUBSCRIBER "Skelda.Subscriber"

/// A named property is a list of texts. `values` is an array of texts.
SKELDA_EXPORT void skelda_user_property_set(const char* name, const char* value);
SKELDA_EXPORT void skelda_user_property_set_values(const char* name, const skelda_value* values);
SKELDA_EXPORT void skelda_user_property_add(const char* name, const char* value);
SKELDA_EXPORT void skelda_user_property_add_values(const char* name, const skelda_value* values);
SKELDA_EXPORT void skelda_user_property_remove_value(const char* name, const char* value);
SKELDA_EXPORT void skelda_user_property_remove_values(const char* name, const skelda_value* values);
/// The property as a whole.
SKELDA_EXPORT void skelda_user_property_remove(const char* name);
SKELDA_EXPORT void skelda_user_property_flag(const char* name);

/// `consent_strings` is a dictionary of texts, or NULL for none. Answers what
/// SkeldaConsent::updateConsentInformation() does; false, too, for an array.
SKELDA_EXPORT bool skelda_update_consent(bool is_gdpr_scope, const skelda_value* consent_strings,
                                         bool is_licn_enabled);
SKELDA_EXPORT void skelda_set_data_sale_opt_out(bool opt_out);
/// The user wants their data deleted.
SKELDA_EXPORT void skelda_request_deletion(void);

// -- The phone and the network: asleep until asked for, which is done before the first event

/// The path of a Unix-domain socket, at which the paired phone is waited for.
SKELDA_EXPORT void skelda_listen_for_phone(const char* socket_path);
SKELDA_EXPORT bool skelda_follow_network(void);

// -- The account: what became of everything

/// Events, or choices. SkeldaAccount.h says what each number is.
typedef struct skelda_account_records {
  uint64_t accepted, stored, waiting, cut_off;
  uint64_t dropped_by_session_cap, dropped_by_session_duration, dropped_as_repeated;
  uint64_t dropped_not_utf8, dropped_wrong_kind, dropped_by_serializer;
  uint64_t dropped_other_key, dropped_other_version, dropped_replayed_too_often;
  uint64_t replayed, unprotected;
} skelda_account_records;

/// accepted = stored + waiting + cut_off + all that was dropped, for each of the two;
/// logs_commited = logs_stored + logs_waiting + the removed ones; blocks likewise.
typedef struct skelda_account {
  skelda_account_records events, choices;
  uint64_t refused_no_key, refused_not_an_extension, refused_bad_name, refused_inside_log_sink;
  uint64_t refused_other_process, refused_over_the_bound, refused_forked_child;
  uint64_t refused_too_deep, refused_too_long, refused_no_memory;
  uint64_t logs_commited, logs_stored, logs_waiting;
  uint64_t logs_removed_folder_full, logs_removed_third_failed_try, logs_removed_unreadable;
  uint64_t blocks_stored, blocks_acknowledged, blocks_rejected, blocks_waiting;
  uint64_t blocks_removed_over_limit, blocks_removed_other_key, blocks_removed_damaged;
  uint64_t frames_written, frames_lost, synchronizations_failed, bytes_sent, requests;
  uint64_t last_answer;
  int64_t last_answer_time;
  uint64_t log_lines_dropped, inconsistent_starts;
} skelda_account;

/// Fills the first `size` bytes: sizeof(skelda_account), as the caller was compiled with it. The
/// struct grows at its end only, and what this library does not know of it is 0. False for NULL.
SKELDA_EXPORT bool skelda_get_account(skelda_account* account, size_t size);

/// What holds events up, and what to do about it, as SkeldaWatch::status() says it: a JSON text, an
/// object with "bundle", "storage", "server", "holder", "holdsUp" and a list of "findings", each
/// with "code", "isBlocking", "text" and "next". Reads files. skelda_text_free() ends it; NULL
/// without memory.
SKELDA_EXPORT char* skelda_status(void);
/// NULL is fine.
SKELDA_EXPORT void skelda_text_free(char* text);

// -- The log

/// Gets one line at a time, `length` bytes and a NUL, which are there until it returns. It is
/// called by a thread of the agent's own; calls of the agent that it makes are refused.
typedef void (*skelda_log_sink)(const char* line, size_t length, void* context);

/// Sends log lines there, `context` with each; NULL turns the log off. When it has returned, the
/// sink before is not called any more, unless it is the caller itself.
SKELDA_EXPORT void skelda_set_log_sink(skelda_log_sink sink, void* context);
/// Back to what the environment says (SKELDA_LOG).
SKELDA_EXPORT void skelda_reset_log_sink(void);
/// Whether every line said so far has reached its reader, waited for that long at most.
SKELDA_EXPORT bool skelda_flush_log(int64_t milliseconds);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif
