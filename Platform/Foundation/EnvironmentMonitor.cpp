#include "Platform/Foundation/EnvironmentMonitor.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <string_view>

#include "Platform/Base/Counted.h"
#include "Platform/Base/Descriptor.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Dispatch/FolderSource.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Foundation/Locale.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/TimeZone.h"

namespace skelda::platform {
namespace {

constexpr std::array<std::string_view, 2> kFolders = {"/etc", "/etc/default"};

}  // namespace

/// Touched only on the queue.
struct EnvironmentMonitor::State : std::enable_shared_from_this<State> {
  explicit State(const std::string& rootPath) : root(rootPath) {}

  const std::string root;
  const QueueRef queue = Queue::serial("EnvironmentMonitor");
  std::array<std::shared_ptr<FolderSource>, kFolders.size()> sources;
  Locale locale;
  TimeZone timeZone;
  bool stopped = false;

  /// Watches the folders that are there and not yet watched. Says whether it added one.
  bool watch() {
    bool added = false;
    for (std::size_t i = 0; i < kFolders.size(); ++i) added |= sources[i] == nullptr && watch(i);
    return added;
  }

  bool watch(std::size_t index) {
    const std::string path = root + std::string(kFolders[index]);
    const int descriptor =
        aboveStandardDescriptors(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (descriptor < 0) return false;
    const auto source = FolderSource::make(descriptor, queue);
    source->setCancelHandler([descriptor] { ::close(descriptor); });
    source->setEventHandler([weak = weak_from_this(), index](unsigned events) {
      if (const auto self = weak.lock()) self->folderChanged(index, events);
    });
    sources[index] = source;
    source->resume();
    return true;
  }

  void folderChanged(std::size_t index, unsigned events) {
    if (stopped) return;
    if ((events & kFolderGone) != 0) {
      sources[index]->cancel();
      sources[index] = nullptr;
    }
    watch();
    compare();
  }

  void compare() {
    auto& center = NotificationCenter::defaultCenter();
    const Locale currentLocale = Locale::current(root);
    const bool localeChanged = !(currentLocale == locale);
    locale = currentLocale;
    const TimeZone currentZone = TimeZone::local(root);
    const bool zoneChanged = !(currentZone == timeZone);
    timeZone = currentZone;
    if (localeChanged) center.post(kCurrentLocaleDidChangeNotification);
    if (zoneChanged) center.post(kSystemTimeZoneDidChangeNotification);
  }

  void stop() {
    stopped = true;
    for (auto& source : sources) {
      if (source != nullptr) source->cancel();
      source = nullptr;
    }
  }
};

// On the caller's thread, and watched before it is read: nothing changes in between unnoticed, and
// as long as no folder changes no other thread reads the environment, which a host may set.
EnvironmentMonitor::EnvironmentMonitor(const std::string& root) : state_(makeCounted<State>(root)) {
  state_->queue->sync([&state = *state_] {
    state.watch();
    state.locale = Locale::current(state.root);
    state.timeZone = TimeZone::local(state.root);
  });
}

EnvironmentMonitor::~EnvironmentMonitor() {
  state_->queue->async([state = state_] { state->stop(); });
}

void EnvironmentMonitor::startShared() {
  static NeverDestroyed<EnvironmentMonitor> shared;
}

}  // namespace skelda::platform
