#pragma once

namespace skelda::platform {

/// Takes what this process has in memory of the files of the network and cryptography libraries out
/// of it: some two MiB, most of which one connection in an hour asks for. The system reads the
/// pages again, from its cache as a rule, when they are needed. A page that somebody changed, a
/// debugger that stops there for one, stays as it is. For when nothing of theirs is under way; any
/// thread.
void giveBackLibraryPages() noexcept;

}  // namespace skelda::platform
