#pragma once

#include <string>

namespace skelda::platform {

/// Room of last resort, one for the process: two descriptors and a file of 256 KiB, given up where
/// something that must not fail wants for a descriptor or for disk, and taken anew once there is
/// room. Any thread.
class StorageReserve {
 public:
  static constexpr long kFileLength = 256L << 10;

  /// What can be had of it; the file at `path`, whose folder nobody else works in.
  static void take(const std::string& path);
  /// Lets the descriptors go and forgets the file, which stays. For tests.
  static void forget();
  /// Gives up what `error` is the want of: the descriptors on EMFILE and ENFILE, the file on ENOSPC
  /// and EDQUOT. Whether there was anything to give.
  static bool giveUp(int error);
  /// Takes anew what was given up, as far as there is room.
  static void refill();
};

/// Errno, or 0, of an operation that must not fail: it is made again where the reserve could help.
template <class Operation>
int withReserve(Operation operation) {
  int error = operation();
  if (error != 0 && StorageReserve::giveUp(error)) error = operation();
  if (error == 0) StorageReserve::refill();
  return error;
}

}  // namespace skelda::platform
