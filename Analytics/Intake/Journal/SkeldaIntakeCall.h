#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string_view>
#include <vector>

#include "Analytics/Intake/Account/SkeldaAccountPage.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// A call of the public face as the journal keeps it: its kind in one byte, then its values one
/// after the other, each a kind in one byte and its content. Measuring and writing neither allocate
/// nor throw, so that a call is kept on the caller's own thread for the price of copying it.
///
/// Format: docs/intake-format.md.
struct SkeldaIntakeCall {
  /// Never renumbered: they stand in files.
  enum class Kind : std::uint8_t {
    event = 1,              ///< name, parameters
    startTimedEvent = 2,    ///< name, parameters
    endTimedEvent = 3,      ///< name, parameters
    purchase = 4,           ///< name, parameters, what the transaction is made of
    setProperties = 16,     ///< name, values
    setPropertyValue = 17,  ///< name, the value in an array
    addProperties = 18,     ///< name, values
    removeProperties = 19,  ///< name, values
    clearProperties = 20,   ///< name
    flagProperties = 21,    ///< name
    consent = 32,           ///< whether in scope, strings, whether legitimate interest is necessary
    optOut = 33,            ///< whether
    deletion = 34,
    userId = 48,  ///< text, or null for none
  };
  using Values = std::initializer_list<std::reference_wrapper<const platform::Value>>;

  /// Containers in containers: more than that would be walked on some queue's small stack.
  static constexpr unsigned kDeepest = 64;
  static constexpr std::size_t kLongest = std::size_t{1} << 20;

  struct Size {
    std::size_t length = 0;
    std::optional<SkeldaRefusal> refusal;  ///< too deep or too long
  };
  static Size sizeOf(Values values) noexcept;
  /// Writes the length that sizeOf() answered.
  static void write(char* place, Kind kind, Values values) noexcept;
  /// Nothing for bytes that write() did not make.
  static std::optional<SkeldaIntakeCall> read(std::string_view bytes);

  bool isEvent() const noexcept { return isEvent(kind); }
  static constexpr bool isEvent(Kind kind) noexcept { return kind <= Kind::purchase; }

  Kind kind = Kind::event;
  std::vector<platform::Value> values;
};
