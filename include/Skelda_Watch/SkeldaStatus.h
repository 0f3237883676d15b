#pragma once

#include <string>
#include <vector>

#include "SkeldaAccount.h"

/// One thing that was found on the way of this application's events to their server. Its texts are
/// for people and change from version to version; they hold no API key, no identifier of a user or
/// a device and no value of an event.
struct SkeldaFinding {
  /// For programs, such as "no-key". docs/operations.md lists them.
  std::string code;
  /// Whether events get no further until it is dealt with. Otherwise it is good to know.
  bool isBlocking = false;
  /// What is so, in plain words.
  std::string text;
  /// What to do next; empty where nothing is to be done.
  std::string next;
};

/// How the agent fares, seen at one moment. A value.
struct SkeldaStatus {
  /// Folder of the bundle whose Info.plist counts, and the folder that the agent keeps its files
  /// in.
  std::string bundle;
  std::string storage;
  /// Where logs are sent, as the host set it last; empty where it has set nothing, and the default
  /// counts, which resolves nowhere.
  std::string server;
  /// The process that holds the storage folder; 0 where none does, or none can be seen.
  int holder = 0;
  SkeldaAccount account;
  /// In the order in which an event meets them.
  std::vector<SkeldaFinding> findings;

  /// Whether something holds events up.
  bool holdsUp() const noexcept {
    for (const SkeldaFinding& finding : findings) {
      if (finding.isBlocking) return true;
    }
    return false;
  }
};
