#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "Platform/Base/RetryDelay.h"

namespace skelda::fleet {

/// A log of a device, by its number; a device counts them from 0.
using Log = std::uint32_t;

/// How a request ended, as far as the sender's rules tell ends apart.
enum class Ending {
  taken,      ///< 200 to 299
  malformed,  ///< 400
  failed,     ///< any other answer, or none
};

/// What a sender wants done, in this order.
struct Steps {
  std::vector<Log> requests;    ///< to be begun
  std::vector<Log> overLimit;   ///< blocks that the limits of fifty and of a hundred removed
  std::vector<Log> folderFull;  ///< logs that the limit of four removed from the folder
  std::optional<platform::RetryDelay::Duration> tryFolderAgainAfter;

  void clear();
};

/// The rules by which one device keeps and sends its logs: what the transfer manager, the frame log
/// sender, the data sender and its index do together, as a value without a thread, a clock, a file
/// or a connection, so that a million fit into one process. The limits are the agent's own
/// constants; the rules are held against the agent's own classes by a test. It knows of a log its
/// number and whether the server has it. Not thread-safe.
class DeviceSender {
 public:
  DeviceSender();
  /// Whether the disk takes blocks; it does at first.
  void setCanStore(bool can) noexcept { canStore_ = can; }
  /// A log was closed and lies in the folder.
  void commit(Log log, Steps& steps);
  /// The delay of `tryFolderAgainAfter` is over.
  void tryFolderAgain(Steps& steps);
  /// A request ended. One that restart() forgot changes nothing.
  void ended(Log log, Ending ending, Steps& steps);
  /// The device has a network again, and a monitor that says so.
  void networkReturned(Steps& steps);
  /// The process was ended and started: requests under way are forgotten, what is on disk is not.
  void restart(Steps& steps);

  /// The server has stored it, whether or not the device hears of that. False for a repeat, and for
  /// one that the device has given up since.
  bool markStored(Log log);
  /// Logs, in blocks and in the folder, that the server has not stored.
  std::size_t notStored() const noexcept;
  std::size_t running() const noexcept { return running_; }
  /// The logs that wait as blocks, oldest first, and those in the folder.
  std::vector<Log> waiting() const;
  std::size_t blocks() const noexcept { return blocks_.size(); }
  std::size_t inFolder() const noexcept { return folder_.size(); }

 private:
  struct Block {
    std::uint32_t log : 30;
    std::uint32_t isRunning : 1;
    std::uint32_t isStored : 1;
  };

  bool hasWindow() const noexcept;
  bool store(Log log, Steps& steps);
  void begin(Block& block, Steps& steps);
  void retransmit(Steps& steps);
  void discardOldest(std::size_t most, Steps& steps);
  void passOverFolder(Steps& steps);

  std::vector<Block> blocks_;
  std::vector<Log> folder_;
  platform::RetryDelay folderDelay_;
  std::uint8_t running_ = 0;
  bool canStore_ = true;
  bool lastWasTaken_ = false;
  bool isReadingFolder_ = false;
};

}  // namespace skelda::fleet
