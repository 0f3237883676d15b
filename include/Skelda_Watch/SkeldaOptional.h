#pragma once

#include <string>

#include "Platform/Base/Export.h"

// What the agent does only where its host asks for it, by a call before the first event. Until then
// there is no thread, no socket and no memory for it. Any thread, nothing throws.

/// The agent follows the machine's links and routes: what waits to be uploaded goes out when the
/// network comes back, and events say how the watch is connected. False where memory ran out.
SKELDA_EXPORT bool SkeldaReachabilityLink() noexcept;

/// The agent gets the identifiers of the paired phone, which it waits for on a Unix-domain socket
/// at that path; a stale one there is replaced.
SKELDA_EXPORT void SkeldaListenForPhone(const std::string& socketPath) noexcept;
