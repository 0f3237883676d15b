#pragma once

#include "Platform/Base/Export.h"

/// The two requests that a user can make under the CCPA. Any thread, not from inside a log sink;
/// nothing throws and nothing waits. What is said is kept from the moment the call returns, as
/// events are (see SkeldaWatch); before the first event it waits for that event to start the agent.
class SKELDA_EXPORT SkeldaCCPA {
 public:
  SkeldaCCPA() = delete;
  /// Whether the user opts out of the sale of their data.
  static void setDataSaleOptOut(bool optOut) noexcept;
  /// The user wants their data deleted.
  static void setDelete() noexcept;
};
