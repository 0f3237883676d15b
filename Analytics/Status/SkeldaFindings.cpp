#include <fmt/format.h>
#include <sys/types.h>
#include <unistd.h>

#include <ctime>
#include <initializer_list>
#include <string_view>
#include <utility>

#include "Analytics/Status/SkeldaSight.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"
#include "Analytics/Utils/SkeldaHostSettings.h"

// Each finding once, as a function of what was seen, in the order in which an event meets them.

namespace {

class Findings {
 public:
  explicit Findings(std::vector<SkeldaFinding>& found) : found_(found) {}
  void holdsUp(const char* code, std::string_view text, std::string_view next) {
    add(code, true, text, next);
  }
  void note(const char* code, std::string_view text, std::string_view next = {}) {
    add(code, false, text, next);
  }

 private:
  [[gnu::noinline]] void add(const char* code, bool isBlocking, std::string_view text,
                             std::string_view next) {
    found_.push_back({code, isBlocking, std::string(text), std::string(next)});
  }

  std::vector<SkeldaFinding>& found_;
};

/// "3 of a, 4 of b", of those that are not 0.
std::string countsOf(std::initializer_list<std::pair<std::uint64_t, const char*>> counts) {
  std::string text;
  for (const auto& [count, what] : counts) {
    if (count != 0) text += fmt::format("{}{} {}", text.empty() ? "" : ", ", count, what);
  }
  return text;
}

void ofBundle(const SkeldaSight& sight, Findings& findings) {
  if (!sight.noInformation.empty()) {
    findings.holdsUp("no-information", sight.noInformation,
                     "Put the program into a bundle, Some.app/PlugIns/Extension.appex/, beside an "
                     "Info.plist: skelda-bundle does it.");
  } else if (!sight.hasKey) {
    const auto key = SkeldaHostSettings::kAPIKey.key;
    findings.holdsUp(
        "no-key",
        fmt::format("The Info.plist of {} has no text under \"{}\": every event is refused.",
                    sight.bundle, key),
        sight.keyLikeAPIKey.empty()
            ? "Add it: it is the key of the account that the events belong to."
            : fmt::format("\"{}\" stands there: write it as \"{}\".", sight.keyLikeAPIKey, key));
  }
  if (!sight.isExtension) {
    findings.holdsUp("no-extension",
                     fmt::format("{} is no watch extension: every event is refused.", sight.bundle),
                     "Let the program run from below a folder whose name ends in \".appex\", such "
                     "as Some.app/PlugIns/Extension.appex/.");
  }
  if (!sight.hasIdentifier) {
    findings.note("no-identifier",
                  fmt::format("The Info.plist has no CFBundleIdentifier: files are kept in {}, "
                              "under the name of the bundle's folder.",
                              sight.storage),
                  "Give it one: no other application then shares them.");
  }
  for (const auto& line : sight.lines) {
    if (line.problem.empty() || line.isBlocking || !line.isPresent) continue;
    findings.note("setting", fmt::format("\"{}\" {}.", line.key, line.problem));
  }
}

void ofStorage(const SkeldaSight& sight, Findings& findings) {
  if (!sight.storageProblem.empty()) {
    findings.holdsUp(
        "storage",
        fmt::format("Nothing can be kept in {}: {}.", sight.storage, sight.storageProblem),
        "Let the program's user write there, or name another place by XDG_DATA_HOME.");
  }
  const bool isOwnBundle = sight.holderProgram.starts_with(sight.bundle + "/");
  if (sight.holder != 0 &&
      (sight.isOwn ? sight.holder != ::getpid() : !isOwnBundle && !sight.holderProgram.empty())) {
    findings.holdsUp("other-process",
                     fmt::format("Process {} {} holds {}: events of any other are refused.",
                                 sight.holder, sight.holderProgram, sight.storage),
                     "End it, or give this application an identifier of its own.");
  } else if (sight.holder != 0 && !sight.isOwn) {
    findings.note("running", fmt::format("Process {} is the agent at work. A second one of this "
                                         "application is refused.",
                                         sight.holder));
  }
  if (sight.couldNotStart) {
    findings.holdsUp("not-started", "The agent could not be started: every event is refused.",
                     "Its log says why (SKELDA_LOG=stderr).");
  }
  if (!sight.accountProblem.empty()) {
    findings.note("no-account",
                  fmt::format("The intake file cannot be read: {}.", sight.accountProblem),
                  "Look as the program's user. What is damaged the next start sets aside.");
  }
}

void ofRecords(const SkeldaSight& sight, Findings& findings) {
  const auto& events = sight.account.events;
  const auto& refused = sight.account.refused;
  const auto refusals = countsOf({{refused.noKey, "without an API key"},
                                  {refused.notAnExtension, "outside a watch extension"},
                                  {refused.badName, "without a name"},
                                  {refused.insideLogSink, "from inside a log sink"},
                                  {refused.otherProcess, "without the storage folder"},
                                  {refused.overTheBound, "with a full journal"},
                                  {refused.forkedChild, "in a forked child"},
                                  {refused.tooDeep, "too deep"},
                                  {refused.tooLong, "too long"},
                                  {refused.noMemory, "for want of memory"}});
  if (!refusals.empty()) {
    findings.note("refused", fmt::format("Calls were refused: {}.", refusals),
                  "Look at what the calls answer: 0 is a refusal.");
  }
  if (const auto dropped = events.droppedBySessionCap + events.droppedBySessionDuration) {
    findings.note(
        "session-limit",
        fmt::format("{} events were dropped by the session rule: a session takes {} events or {} "
                    "minutes, and what comes until it has ended is dropped.",
                    dropped, sight.eventThreshold, sight.durationThreshold),
        fmt::format("See that a phone gives its identifiers, so that sessions can end; \"{}\" may "
                    "be up to {}.",
                    SkeldaHostSettings::kEventThreshold.key,
                    SkeldaHostSettings::kEventThreshold.most));
  }
  const auto others = countsOf({{events.droppedAsRepeated, "repeated"},
                                {events.droppedNotUTF8, "not UTF-8"},
                                {events.droppedWrongKind, "parameters that are no dictionary"},
                                {events.droppedBySerializer, "that could not be written"},
                                {events.droppedOtherKey, "of another API key"},
                                {events.droppedOtherVersion, "of another version"},
                                {events.droppedReplayedTooOften, "that three starts died of"}});
  if (!others.empty()) findings.note("dropped", fmt::format("Events were dropped: {}.", others));
}

void ofOtherKeys(const SkeldaSight& sight, Findings& findings) {
  const auto& account = sight.account;
  const auto waiting = account.events.waiting + account.choices.waiting;
  const auto text = countsOf({{sight.blocksOfOtherKeys, "stored logs"},
                              {sight.journalIsOfOtherKey ? waiting : 0, "events and choices"}});
  if (text.empty() || !sight.hasKey) return;
  findings.holdsUp("other-key",
                   fmt::format("Accepted under another API key than the one in the Info.plist, and "
                               "deleted by the next start: {}.",
                               text),
                   "Put the former key back until they have been sent, if they are wanted.");
}

void ofPhone(const SkeldaSight& sight, Findings& findings) {
  if (sight.identifiers == SkeldaSight::Seen::no) {
    findings.holdsUp(
        "no-phone",
        fmt::format("No phone has given its identifiers yet{}: no session can end, and a log is "
                    "closed at the next start only.",
                    sight.isPhoneOff ? fmt::format(" (\"{}\" is on)",
                                                   SkeldaHostSettings::kDisableConnectivity.key)
                                     : ""),
        "Call SkeldaListenForPhone(SOCKET) before the first event and let the phone connect; on a "
        "machine without one, skelda-phone SOCKET stands in for it. Once is enough.");
  } else if (sight.identifiers == SkeldaSight::Seen::unknown) {
    findings.note("keychain", "Whether a phone has given its identifiers cannot be read.",
                  "Look as the program's user, with its XDG_STATE_HOME.");
  } else if (sight.openEvents != 0 && !sight.missing.empty()) {
    findings.holdsUp("records-missing",
                     fmt::format("The open log cannot be closed without: {}.", sight.missing),
                     "The agent observes them by itself, some on the main queue: see that the host "
                     "serves it, where it has taken it over.");
  }
}

void ofLogs(const SkeldaSight& sight, Findings& findings) {
  const auto& account = sight.account;
  const auto held = countsOf(
      {{account.events.waiting, "in the intake journal"}, {sight.openEvents, "in the open log"}});
  if (!held.empty() && sight.holder == 0 && !sight.isOwn) {
    findings.holdsUp(
        "ended", fmt::format("The program has ended, and left events behind: {}.", held),
        "They are kept, and go on with its next start. A program that ends early calls "
        "waitUntilStored() and stays for the upload.");
  } else if (!held.empty()) {
    findings.note("session-open",
                  fmt::format("Events wait for their session to end: {}. It ends with event {}, or "
                              "with the first one after {} minutes.",
                              held, sight.eventThreshold, sight.durationThreshold));
  }
  const auto& logs = account.logs;
  if (logs.waiting != 0 && sight.holder == 0 && !sight.isOwn) {
    findings.holdsUp("logs-wait", fmt::format("{} closed logs wait.", logs.waiting),
                     "The program's next start takes them up.");
  } else if (logs.waiting > 1) {
    findings.note("logs-wait", fmt::format("{} closed logs wait to be stored.", logs.waiting));
  }
  const auto& blocks = account.blocks;
  const auto removed = countsOf({{logs.removedFolderFull, "logs, since too many waited"},
                                 {logs.removedThirdFailedTry, "logs that were empty"},
                                 {logs.removedUnreadable, "logs that could not be read"},
                                 {blocks.rejected, "that the server answered 400 to"},
                                 {blocks.removedOverLimit, "over the limit"},
                                 {blocks.removedOtherKey, "of another API key"},
                                 {blocks.removedDamaged, "that were damaged"}});
  if (!removed.empty()) {
    findings.note("removed", fmt::format("Logs were deleted unacknowledged: {}.", removed));
  }
}

std::string timeOf(std::int64_t microseconds) {
  const auto seconds = static_cast<std::time_t>(microseconds / 1000000);
  struct ::tm parts {};
  char text[40];
  const auto length =
      std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", ::gmtime_r(&seconds, &parts));
  return std::string(text, length);
}

void ofAnswer(const SkeldaSight& sight, Findings& findings) {
  const auto& account = sight.account;
  const auto answer = account.lastAnswer;
  const auto text = fmt::format(
      "The server's last answer, at {}, was {}{}.", timeOf(account.lastAnswerTime), answer,
      answer == 401 || answer == 403   ? ": it does not take this API key"
      : answer == 404 || answer == 405 ? ": no logs are taken at this path"
      : answer == 413                  ? ": it takes no logs of this length"
      : answer >= 500                  ? ": it has troubles of its own"
                                       : "");
  if (answer >= 200 && answer < 300) {
    findings.note("answer", text);
  } else if (answer == 400) {
    findings.note("answer", text,
                  "It takes no such logs: what it got was deleted. See its own log.");
  } else if (answer != 0) {
    findings.holdsUp("answer", text,
                     answer == 401 || answer == 403   ? fmt::format("See \"{}\" in the Info.plist.",
                                                                    SkeldaHostSettings::kAPIKey.key)
                     : answer == 404 || answer == 405 ? "See the address given to setServerURL()."
                                                      : "What waits is sent again later.");
  } else if (account.requests != 0) {
    findings.holdsUp(
        "no-answer", fmt::format("{} requests, and no answer to any.", account.requests),
        "See the address, the network and the certificate: skelda-doctor asks the server.");
  }
}

void ofTransfer(const SkeldaSight& sight, Findings& findings) {
  const auto& account = sight.account;
  const bool isUsed = sight.hasAccount || sight.isOwn;
  if (sight.server.empty() && isUsed) {
    findings.holdsUp("no-server",
                     fmt::format("No address was set: logs go to {}, which resolves nowhere.",
                                 SkeldaNetworkURLsDataProvider::kDefaultServerURL),
                     "Call setServerURL() before the first event.");
  } else if (isUsed && !SkeldaNetworkURLsDataProvider::isAbsoluteHTTPAddress(sight.server)) {
    findings.holdsUp(
        "bad-server",
        fmt::format("\"{}\" is no absolute http or https address: nothing can be sent there.",
                    sight.server),
        "Give setServerURL() one such as https://host.example/v1/skd.do.");
  }
  ofAnswer(sight, findings);
  if (account.blocks.waiting != 0) {
    const auto text = fmt::format(
        "{} logs are stored as blocks and wait for a server that takes "
        "them.",
        account.blocks.waiting);
    if (sight.holder == 0 && !sight.isOwn) {
      findings.holdsUp("blocks-wait", text,
                       "They follow the first log that is taken after the program's next start.");
    } else {
      findings.note("blocks-wait", text);
    }
  }
}

}  // namespace

SkeldaStatus SkeldaSight::status() const {
  SkeldaStatus status;
  status.bundle = bundle;
  status.storage = storage;
  status.server = server;
  status.holder = holder;
  status.account = account;
  Findings findings(status.findings);
  ofBundle(*this, findings);
  ofStorage(*this, findings);
  if (!hasAccount && accountProblem.empty() && !isOwn && !status.holdsUp()) {
    findings.holdsUp("nothing-yet", fmt::format("No event was ever accepted in {}.", storage),
                     "Run the program. If it did run, look as its user and with its XDG_DATA_HOME, "
                     "and at what logWatchEvent() answers.");
  }
  ofRecords(*this, findings);
  ofOtherKeys(*this, findings);
  if (hasAccount) ofPhone(*this, findings);
  ofLogs(*this, findings);
  ofTransfer(*this, findings);
  return status;
}
