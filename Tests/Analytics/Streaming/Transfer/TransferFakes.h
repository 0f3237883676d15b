#pragma once

#include "Analytics/Streaming/Data Providers/ISkeldaNodeDataProvider.h"
#include "Analytics/Streaming/Transfer/ISkeldaFileTransferAgent.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Tests/Support/Testing.h"

namespace skelda::testing {

class FakeFolder : public SkeldaStreamFileManager {
 public:
  bool removeItemAtPath(const Path& path) override {
    const std::string name = std::filesystem::path(*path).filename();
    if (undeletable.contains(name)) return false;
    removed.push_back(name);
    names.erase(name);
    return true;
  }
  bool isFilePresentAtPath(const Path& path) override {
    return names.contains(std::filesystem::path(*path).filename());
  }
  std::optional<Texts> fileNamesAtPath(const Path&, ErrorRef* error) override {
    setError(error, nullptr);
    if (std::exchange(isUnlistable, false)) return std::nullopt;
    namesListed += names.size();
    return Texts(names.begin(), names.end());
  }

  std::set<std::string> names;
  std::set<std::string> undeletable;
  Texts removed;
  bool isUnlistable = false;
  std::size_t namesListed = 0;
};

struct FakeMonitor : ISkeldaNodeDataProvider {
  void addObserver(std::shared_ptr<SkeldaNodeDataProviderObserver> added) override {
    observer = added;
  }
  void removeObserver(const std::shared_ptr<SkeldaNodeDataProviderObserver>&) override {}
  void forceRefresh(Completion completion) override {
    tell(0);
    completion(nullptr);
  }
  void willRemove(const std::string& name) override { announced.push_back(name); }
  void tell(std::uint32_t change) {
    if (const auto strong = observer.lock()) strong->fileMonitor(*this, change);
  }

  std::weak_ptr<SkeldaNodeDataProviderObserver> observer;
  Texts announced;
};

struct FakeAgent : ISkeldaFileTransferAgent {
  void setDelegate(std::weak_ptr<ISkeldaFileTransferAgentDelegate>) override {}
  void startTransfer(SkeldaFileStateRef file) override { started.push_back(file->fileName()); }
  void cancelTransfer(SkeldaFileStateRef file) override { cancelled.push_back(file->fileName()); }
  void resumeTransfer(SkeldaFileStateRef) override {}
  std::vector<SkeldaFileStateRef> listTransfers() override { return {}; }

  Texts started;
  Texts cancelled;
};

}  // namespace skelda::testing
