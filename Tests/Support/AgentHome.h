#pragma once

#include "Analytics/Utils/SkeldaKVStorage.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Tests/Support/Testing.h"

namespace skelda::testing {

/// A home folder of the test's own in which the agent keeps its files: the storage folder and the
/// shared key-value store follow it, and are forgotten again at its end, as is the log level.
class AgentHome : public TemporaryHome {
 public:
  AgentHome() { forget(); }
  ~AgentHome() {
    forget();
    SkeldaUtil::setLogLevel(0);
  }

  /// The agent's storage folder; made when it is first asked for.
  std::string storageFolder() const { return SkeldaUtil::filePathDirectory(); }
  void empty() {
    std::filesystem::remove_all(path());
    forget();
  }
  /// What a new process would find: folder and store are looked up and read again.
  static void forget() {
    SkeldaUtil::resetFilePathDirectory();
    SkeldaKVStorage::resetSharedInstance();
  }
};

}  // namespace skelda::testing
