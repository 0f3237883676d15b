#pragma once

#include <optional>
#include <string>

#include "Platform/Base/Export.h"
#include "SkeldaValue.h"

/// The analytics agent of a watch application. The first accepted event builds and starts it; from
/// then on it lives as long as the process and works on queues of its own.
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
///
/// Every operation may be called from any thread, at any time from static initialisation to exit,
/// except from inside a log sink, where it is refused. Nothing throws: what cannot be done is said
/// in the log and by the result. Text is UTF-8; text that is not is refused with a log line.
class SKELDA_EXPORT SkeldaWatch {
 public:
  SkeldaWatch() = delete;

  /// Logs one event. `name` is a text that is not empty; `parameters` is a dictionary of at most
  /// ten entries (more, and all of them are replaced by a marker) or null. Returns 1 when the event
  /// was handed on, 0 when it was refused: without an API key, outside a watch extension, for a bad
  /// name, from inside a log sink, or where another process holds this application's storage.
  /// Takes about a microsecond of the caller's time; the first accepted call a few milliseconds.
  /// What a handed-on event still fails (parameters of another kind, text that is not UTF-8) is
  /// found on the agent's queue and said in the log.
  static unsigned logWatchEvent(SkeldaValue name, SkeldaValue parameters = {}) noexcept;

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

  // What the first accepted event applies, in this order: debug, connectivity, user, version.
  static void loadWatchDebug() noexcept;
  static void loadWatchDisableWatchConnectivity() noexcept;
  /// The value of the key, or null.
  static SkeldaValue loadWatchUserID() noexcept;
  static SkeldaValue loadAppVersionOverride() noexcept;
};
