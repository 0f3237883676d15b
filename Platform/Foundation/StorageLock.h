#pragma once

#include <sys/types.h>

#include <string>

#include "Platform/Foundation/Error.h"

namespace skelda::platform {

/// The advisory lock that keeps two processes from writing the same storage folder: a flock on the
/// file at a path, whose text is the holder's process id in decimal and a line feed. The file stays
/// when the lock goes. A forked child has no part in it. Any thread; nothing here blocks.
class StorageLock {
 public:
  enum class Status {
    held,         ///< by this process, until it ends
    heldByOther,  ///< another process holds it
    failed,       ///< the lock file could not be opened or locked
  };
  struct Result {
    Status status = Status::failed;
    /// The holder where it is another process; 0 where its id could not be read.
    ::pid_t holder = 0;
    ErrorRef error;
  };

  /// Its folder must exist; a link in the file's place fails. Asking again for a lock that this
  /// process holds answers held; a process forked from the holder is another process.
  static Result acquire(const std::string& path);
  /// Gives it up before the process ends.
  static void release(const std::string& path);
};

}  // namespace skelda::platform
