#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Analytics/Status/SkeldaBundleCheck.h"
#include "Platform/Platform.h"
#include "Skelda_Watch/SkeldaAccount.h"
#include "Skelda_Watch/SkeldaStatus.h"

/// What can be seen of an agent, and what follows from it: the one body of knowledge behind
/// SkeldaWatch::status() and skelda-doctor.
///
/// Looking changes nothing: no folder is made, no lock is taken, no file is set aside. Any thread.
struct SkeldaSight {
  enum class Seen : std::uint8_t { no, yes, unknown };

  // The bundle: of the main one.
  std::string bundle;
  /// Why there are no settings; empty where there are.
  std::string noInformation;
  std::vector<SkeldaBundleCheck::Line> lines;
  std::string keyLikeAPIKey;
  bool hasKey = false;
  bool isExtension = false;
  bool hasIdentifier = false;
  bool isPhoneOff = false;
  std::int32_t eventThreshold = 0;
  std::int32_t durationThreshold = 0;

  // The storage folder.
  std::string storage;
  bool hasStorage = false;
  /// Why it cannot be made or written; empty where it can.
  std::string storageProblem;
  ::pid_t holder = 0;
  std::string holderProgram;  ///< as far as it can be told

  // What became of everything.
  bool hasAccount = false;
  std::string accountProblem;
  SkeldaAccount account;
  std::string server;
  Seen identifiers = Seen::unknown;
  std::uint64_t openEvents = 0;  ///< in the open log
  std::string missing;           ///< records that it must hold, and does not: "a, b"
  /// Of another API key than the bundle's: stored blocks, and events and choices that wait.
  std::uint64_t blocksOfOtherKeys = 0;
  bool journalIsOfOtherKey = false;

  // What only the process knows that the agent works in.
  bool isOwn = false;
  bool couldNotStart = false;
  std::string lastFailure;  ///< why the last request had no answer; empty where it had one

  /// From the settings and files of the main bundle.
  static SkeldaSight ofFiles();
  /// What holds events up, and what to do.
  SkeldaStatus status() const;
};
