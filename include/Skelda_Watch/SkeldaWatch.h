#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "Platform/Base/Export.h"
#include "SkeldaAccount.h"
#include "SkeldaStatus.h"
#include "SkeldaValue.h"

/// The analytics agent of a watch application. The first accepted event builds and starts it; from
/// then on it lives as long as the process and works on queues of its own.
///
/// What a call was answered 1 for is kept from that moment on, in a journal in the agent's storage
/// folder, whatever ends the process: the next start goes on with it, oldest first. The end of the
/// machine's power is not promised. account() says what became of everything.
///
/// It is configured from the Info.plist of the main bundle:
///   "Skelda Watch API Key"              text; without it every event is refused
///   "Skelda Watch App Version"          text that overrides the reported version
///   "Skelda Watch User ID"              text
///   "Skelda Watch Debug"                number or the text YES: log level 2 (set before the agent
///                                       is built, which then logs at its own level, 3)
///   "Skelda Disable WatchConnectivity"  number or the text YES: no link to the phone
///   "Skelda Watch Event Threshold"      5 to 50 events a session, 10 when absent
///   "Skelda Watch Duration Threshold"   5 to 60 minutes a session, 10 when absent
///   "Skelda Watch Intake Capacity"      256 to 262144 KiB of journal, 8192 when absent
///
/// Every operation may be called from any thread, at any time from static initialisation to exit,
/// except from inside a log sink and from a process that was forked from one that uses the agent,
/// where it is refused. Nothing throws: what cannot be done is said in the log and by the result.
/// Text is UTF-8; text that is not is refused with a log line.
class SKELDA_EXPORT SkeldaWatch {
 public:
  SkeldaWatch() = delete;

  /// Logs one event. `name` is a text that is not empty; `parameters` is a dictionary of at most
  /// ten entries (more, and all of them are replaced by a marker) or null. Returns 1 when the event
  /// is kept, 0 when it was refused: without an API key, outside a watch extension, for a bad name,
  /// for values nested deeper than 64 levels or longer than 1 MiB, from inside a log sink, in a
  /// forked child, where another process holds this application's storage, or where the journal is
  /// full of what could not be written yet. Takes less than a microsecond of the caller's time and
  /// asks the system for nothing; the first accepted call takes a few milliseconds.
  /// What a kept event still fails (parameters of another kind, text that is not UTF-8, the limits
  /// of a session) is found on the agent's queues, said in the log and counted in the account.
  static unsigned logWatchEvent(SkeldaValue name, SkeldaValue parameters = {}) noexcept;

  /// The beginning and the end of something that takes time: two events, which whoever reads them
  /// pairs by name. Otherwise like logWatchEvent().
  static unsigned startTimedEvent(SkeldaValue name, SkeldaValue parameters = {}) noexcept;
  static unsigned endTimedEvent(SkeldaValue name, SkeldaValue parameters = {}) noexcept;
  /// An event with a purchase in it, a dictionary of what is known of it: texts under
  /// "sk.TransactionIdentifier", "sk.ProductID", "sk.ProductName", "sk.Quantity", "sk.Price",
  /// "sk.Currency", "sk.TransactionState" and "sk.country.code". Otherwise like logWatchEvent().
  static unsigned logPurchase(SkeldaValue name, SkeldaValue transaction,
                              SkeldaValue parameters = {}) noexcept;
  /// Who the user is from now on: a text, or null for nobody. Kept like an event, but starts
  /// nothing: before the first event it waits for that.
  static void setUserID(SkeldaValue userID) noexcept;

  /// Waits until all that was accepted before the call, choices included, is in a frame that is
  /// synchronised to storage, or named in the account with the reason why it never will be: then
  /// true. False when `longest` is over first, and at once where only choices wait, which the first
  /// event sets going, or where the call is refused. For tests, and for hosts that are about to end
  /// or to be suspended; it closes no session and asks for no upload. Any thread, the main queue
  /// included.
  static bool waitUntilStored(std::chrono::nanoseconds longest) noexcept;

  /// What became of everything over all runs; before anything was accepted in this process, what it
  /// refused. Any thread; looks into two folders.
  static SkeldaAccount account() noexcept;

  /// What holds events up, and what to do about it, as skelda-doctor says it from outside: from the
  /// Info.plist, the agent's files and its account. For a host's own diagnosis, and not for the
  /// path of an event: it reads files, a whole log among them. Changes nothing and asks no server.
  /// Any thread; nothing is found where the call is refused.
  static SkeldaStatus status() noexcept;

  /// The API key, read once; nothing where there is none.
  static std::optional<std::string> apiKey() noexcept;

  /// Whether a collection of texts (an array, or a dictionary, which stands for its keys) holds one
  /// of the marker keys of the agent's own messages between watch and phone, which a host should
  /// ignore. The three are one and the same question.
  static bool checkIsSkeldaUserInfo(const SkeldaValue& collection) noexcept;
  static bool isSkeldaUserInfo(const SkeldaValue& collection) noexcept;
  static bool skeldaUserInfo(const SkeldaValue& collection) noexcept;

  /// The address that logs are uploaded to, a text that is taken as it is. Best before the first
  /// event; uploads already under way keep theirs.
  static void setServerURL(SkeldaValue url) noexcept;

  /// What the first accepted event applies, in this order: debug, connectivity, user, version.
  static void loadWatchDebug() noexcept;
  static void loadWatchDisableWatchConnectivity() noexcept;
  /// The value of the key, or null.
  static SkeldaValue loadWatchUserID() noexcept;
  static SkeldaValue loadAppVersionOverride() noexcept;
};
