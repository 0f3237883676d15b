#pragma once

#include "Platform/Base/Export.h"
#include "SkeldaConstants.h"
#include "SkeldaValue.h"

/// Named properties of the application's user, each a list of texts. A name is a text that is not
/// empty; anything else is refused with a log line.
///
/// Any thread, not from inside a log sink; nothing throws and nothing waits. What is said is kept
/// from the moment the call returns, as events are (see SkeldaWatch); before the first event it
/// waits for that event to start the agent.
class SKELDA_EXPORT SkeldaUserProperties {
 public:
  SkeldaUserProperties() = delete;

  /// Replaces the property's values. `values` is an array of texts.
  static void setValues(SkeldaValue name, SkeldaValue values) noexcept;
  static void setValue(SkeldaValue name, SkeldaValue value) noexcept;
  /// Adds to the property's values.
  static void addValues(SkeldaValue name, SkeldaValue values) noexcept;
  static void addValue(SkeldaValue name, SkeldaValue value) noexcept;
  /// Takes values away.
  static void removeValues(SkeldaValue name, SkeldaValue values) noexcept;
  static void removeValue(SkeldaValue name, SkeldaValue value) noexcept;
  /// Takes the property away.
  static void remove(SkeldaValue name) noexcept;
  /// Marks the user: the property with the single value "true".
  static void flag(SkeldaValue name) noexcept;
};
