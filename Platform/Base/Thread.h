#pragma once

namespace skelda::platform {

/// Starts a detached thread of the layer. It carries the name (at most 15 letters) and takes no
/// signals: those are the host's. False when the system has no thread to give.
bool startThread(const char* name, void (*body)(void* argument), void* argument) noexcept;

}  // namespace skelda::platform
