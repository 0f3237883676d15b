#pragma once

#include <memory>
#include <string>

namespace skelda::platform {

/// Notices, while the process runs, that the system's files for locale and time zone changed what
/// they say, and then posts kCurrentLocaleDidChangeNotification or
/// kSystemTimeZoneDidChangeNotification to the default centre, on a queue of its own. Watches the
/// files' folders: no polling, and nothing wakes while nothing changes. A file that is rewritten in
/// place, without a rename, is noticed with the next entry that comes or goes beside it. Stops when
/// destroyed. Any thread.
class EnvironmentMonitor {
 public:
  /// `root` stands before the paths of the files, for tests.
  explicit EnvironmentMonitor(const std::string& root = {});
  ~EnvironmentMonitor();
  EnvironmentMonitor(const EnvironmentMonitor&) = delete;
  EnvironmentMonitor& operator=(const EnvironmentMonitor&) = delete;

  /// Starts the monitor of the process, once; it runs until the process ends.
  static void startShared();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace skelda::platform
