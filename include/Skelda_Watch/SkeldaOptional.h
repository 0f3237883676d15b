#pragma once

#include <string>

// What the library does not bring of itself: each is a component that a program links when it wants
// it, and makes known by the call below, before its first event. Any thread, nothing throws.

/// Skelda_Watch::reachability. The agent follows the machine's links and routes: what waits to be
/// uploaded goes out when the network comes back, and events say how the watch is connected. True.
bool SkeldaReachabilityLink();

/// Skelda_Watch::watchconnectivity. The agent gets the identifiers of the paired phone, which it
/// waits for on a Unix-domain socket at that path; a stale one there is replaced.
void SkeldaListenForPhone(const std::string& socketPath) noexcept;
