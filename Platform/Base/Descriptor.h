#pragma once

namespace skelda::platform {

/// The same descriptor with a number from 3 on. 0, 1 and 2 are the host's even while it has them
/// closed: whatever it writes to its standard error must not land in what the agent opened. Takes
/// the descriptor over; -1 and errno where it is -1 or the system has no other number to give. Made
/// for what comes from open(), socket() and the like, before anything is said of it to anybody.
int aboveStandardDescriptors(int descriptor) noexcept;

/// Keeps those of 0, 1 and 2 that are closed from being given to anybody, for as long as it lives:
/// around calls of libraries that open what they keep by themselves. Where the system has no
/// descriptor to give, nobody is given one.
class StandardDescriptorsHeld {
 public:
  StandardDescriptorsHeld() noexcept;
  ~StandardDescriptorsHeld();
  StandardDescriptorsHeld(const StandardDescriptorsHeld&) = delete;
  StandardDescriptorsHeld& operator=(const StandardDescriptorsHeld&) = delete;

 private:
  bool isHeld_[3] = {};
};

}  // namespace skelda::platform
