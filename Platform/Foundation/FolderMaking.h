#pragma once

#include <string>
#include <vector>

#include "Platform/Foundation/Error.h"

namespace skelda::platform {

/// Makes the folder and what is missing above it, mode 0700, without waiting for the disk: for a
/// caller in a hurry. False where it cannot be made. The folders in which something new stands are
/// added to `changed`, outermost first; until they have been synchronised a loss of power takes the
/// new folder with all that is in it. Any thread.
bool makeFolders(const std::string& path, std::vector<std::string>& changed,
                 ErrorRef* error = nullptr);

/// Puts what was made in the folders on disk for good. Waits for the disk; any thread.
bool synchronizeFolders(const std::vector<std::string>& folders, ErrorRef* error = nullptr);

/// What keeps files and folders from being made at `path`: what of it is in the way, and the
/// system's reason. Empty where nothing is. Makes nothing; any thread.
std::string whyNotWritable(const std::string& path);

}  // namespace skelda::platform
