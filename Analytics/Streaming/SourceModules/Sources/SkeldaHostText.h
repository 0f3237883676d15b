#pragma once

#include <optional>
#include <string>

#include "Analytics/Intake/Account/SkeldaIntakeTicket.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

namespace skelda {

/// Whether every text of the value, keys and nested values included, is well-formed UTF-8. What is
/// not is refused where it enters the agent: no payload could carry it.
bool isWellFormedText(const platform::Value& value) noexcept;

/// Settles a call that a source refuses: for its text where that is not well-formed, else for the
/// kind of what was given.
void settleRefused(SkeldaIntakeTicket ticket, const platform::Value& name,
                   const platform::Value& given) noexcept;

/// What the host gave where a text is expected: text as it is, other values as their "%@", null as
/// nothing.
std::optional<std::string> textOf(platform::Value value);

}  // namespace skelda
