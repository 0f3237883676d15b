#pragma once

namespace skelda::platform {

/// Starts a detached thread of the layer. It carries the name (at most 15 letters), takes no
/// signals but its own faults, since they are the host's, and has the default scheduling and the
/// process's processors, whoever starts it. False when the system has no thread to give.
bool startThread(const char* name, void (*body)(void* argument), void* argument) noexcept;

}  // namespace skelda::platform
