#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skelda::platform {

// What the machine says of itself in /proc, /sys and /etc. Any thread. Whatever a machine does not
// have is nothing.

/// Reads below another root from here on ("" is the real one). For tests, before threads read.
void setSystemRoot(std::string root);
/// `path`, absolute, below the root.
std::string systemPath(std::string_view path);
/// The whole text, at most 1 MiB of it. `error` takes why there is none: errno, ENOENT included.
std::optional<std::string> readSystemFile(std::string_view path, int* error = nullptr);
/// As readSystemFile, without blanks, line feeds and zero bytes at its ends; nothing where that is
/// empty.
std::optional<std::string> readSystemLine(std::string_view path, int* error = nullptr);
/// Sorted names of a folder's entries; empty where there is no such folder.
std::vector<std::string> systemFolderEntries(std::string_view path);
/// The 32 hexadecimal digits of /etc/machine-id. `error` tells a machine without an id (0) from one
/// whose id cannot be read just now (errno): what was bound to the id must not take it for absent.
std::optional<std::string> machineID(int* error = nullptr);

}  // namespace skelda::platform
