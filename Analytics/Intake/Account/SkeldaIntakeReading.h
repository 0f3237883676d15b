#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Platform/Foundation/Error.h"
#include "Platform/Platform.h"
#include "Skelda_Watch/SkeldaAccount.h"

/// What an intake file tells whoever only looks, of an agent that lives or of one that has ended:
/// nothing is opened for writing, locked or mapped. Any thread.
struct SkeldaIntakeReading {
  /// Without the logs and blocks that wait, which are files of their own. Calls that a kill fell
  /// into count as waiting until the next start has settled them.
  SkeldaAccount account;
  /// The address that the host set last; empty where its last start has set none.
  std::string server;
  /// Of the API key that what waits was accepted under.
  std::uint64_t keyHash = 0;

  /// Nothing, and an error, where there is no such file or it is none of this format.
  static std::optional<SkeldaIntakeReading> of(const std::string& path,
                                               platform::ErrorRef* error = nullptr);
};
