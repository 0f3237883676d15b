#include "Analytics/Utils/SkeldaKVStorage.h"

#include <algorithm>
#include <utility>

#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

struct Shared {
  platform::Mutex mutex;
  std::shared_ptr<SkeldaKVStorage> instance GUARDED_BY(mutex);
};

Shared& shared() {
  static platform::NeverDestroyed<Shared> state;
  return *state;
}

/// Deeper values could not be archived, and would keep every later change off the disk.
constexpr int kMaximumDepth = 32;

/// Whether a property list can hold the value, all the way down.
bool isPropertyList(const platform::Value& value, int depth = 0) {
  if (value.isNull() || depth > kMaximumDepth) return false;
  const auto inner = [depth](const platform::Value& v) { return isPropertyList(v, depth + 1); };
  if (const auto* text = value.text()) return platform::isValidUTF8(*text);
  if (const auto* array = value.array()) return std::all_of(array->begin(), array->end(), inner);
  if (const auto* dictionary = value.dictionary()) {
    return std::all_of(dictionary->begin(), dictionary->end(), [&](const auto& entry) {
      return platform::isValidUTF8(entry.first) && inner(entry.second);
    });
  }
  return true;
}

void apply(platform::Dictionary& dictionary, const std::string& key, const platform::Value& value) {
  if (value.isNull()) {
    dictionary.erase(key);
  } else {
    dictionary.set(key, value);
  }
}

}  // namespace

std::shared_ptr<SkeldaKVStorage> SkeldaKVStorage::sharedInstance() {
  Shared& state = shared();
  const platform::MutexLock lock(state.mutex);
  if (state.instance == nullptr) state.instance = storageWithFile(defaultFilePath());
  return state.instance;
}

void SkeldaKVStorage::resetSharedInstance() {
  Shared& state = shared();
  platform::MutexLock lock(state.mutex);
  const auto old = std::exchange(state.instance, nullptr);
  lock.unlock();
  // What was posted to the old one is on disk before a new one reads.
  if (old != nullptr) old->syncBlock([] {});
}

std::shared_ptr<SkeldaKVStorage> SkeldaKVStorage::storageWithFile(std::string path) {
  return made(new SkeldaKVStorage(std::move(path)));
}

std::string SkeldaKVStorage::defaultFilePath() {
  return SkeldaAgentFiles::kvStorage();
}

SkeldaKVStorage::SkeldaKVStorage(std::string path)
    : SkeldaActor("SkeldaKVStorage"), path_(std::move(path)) {}

void SkeldaKVStorage::didInit() {
  post<&SkeldaKVStorage::onqueue_load>();
}

void SkeldaKVStorage::onqueue_load() {
  SKELDA_ON_QUEUE();
  if (loaded_) return;
  platform::ErrorRef error;
  auto archive = SkeldaUtil::safeUnarchiveObjectWithFile(path_, &error);
  // Not readable at the moment: what the file holds must not be overwritten by what is known here.
  if (error != nullptr) return;
  loaded_ = true;
  if (!archive) {
    onqueue_save();
    return;
  }
  dictionary_ = {};
  if (auto* stored = archive->root.dictionary()) dictionary_ = std::move(*stored);
  saved_ = pending_.empty();
  for (auto& [key, value] : std::exchange(pending_, {})) apply(dictionary_, key, value);
  if (!saved_) onqueue_save();
}

void SkeldaKVStorage::onqueue_save() {
  SKELDA_ON_QUEUE();
  platform::Value root(std::move(dictionary_));
  saved_ = SkeldaUtil::archiveDictionary(root, path_);
  dictionary_ = std::move(*root.dictionary());
}

void SkeldaKVStorage::onqueue_change(const platform::Dictionary& changes) {
  SKELDA_ON_QUEUE();
  onqueue_load();
  for (const auto& [key, value] : changes) {
    apply(dictionary_, key, value);
    if (!loaded_) pending_.emplace_back(key, value);
  }
  if (loaded_) onqueue_save();
}

void SkeldaKVStorage::onqueue_removeAll() {
  SKELDA_ON_QUEUE();
  // Whatever the file holds is to go, so that it need not be read any more.
  loaded_ = true;
  pending_.clear();
  dictionary_ = {};
  onqueue_save();
}

bool SkeldaKVStorage::isStorable(const platform::Value& object,
                                 const std::optional<std::string>& key, std::string_view method) {
  return SkeldaUtil::assertNotNil(object, method) && SkeldaUtil::assertNotNil(key, method) &&
         SkeldaUtil::assert_(isPropertyList(object), method) &&
         SkeldaUtil::assert_(platform::isValidUTF8(*key), method);
}

void SkeldaKVStorage::set(platform::Value object, const std::optional<std::string>& key,
                          std::string_view method) {
  if (!isStorable(object, key, method)) return;
  post<&SkeldaKVStorage::onqueue_change>(platform::Dictionary{{*key, std::move(object)}});
}

void SkeldaKVStorage::setObject(const platform::Value& object,
                                const std::optional<std::string>& key) {
  set(object, key, "-[SkeldaKVStorage setObject:forKey:]");
}

bool SkeldaKVStorage::storeObjects(const platform::Dictionary& objects) {
  for (const auto& [key, object] : objects) {
    if (!isStorable(object, key, "-[SkeldaKVStorage storeObjects:]")) return false;
  }
  bool stored = false;
  syncBlock([&] {
    onqueue_change(objects);
    stored = loaded_ && saved_;
  });
  return stored;
}

bool SkeldaKVStorage::isReadable() {
  bool readable = false;
  syncBlock([&] {
    onqueue_load();
    readable = loaded_;
  });
  return readable;
}

void SkeldaKVStorage::setString(const std::optional<std::string>& text,
                                const std::optional<std::string>& key) {
  set(text ? platform::Value(*text) : platform::Value(), key,
      "-[SkeldaKVStorage setString:forKey:]");
}

void SkeldaKVStorage::setData(const std::optional<platform::Data>& data,
                              const std::optional<std::string>& key) {
  set(data ? platform::Value(*data) : platform::Value(), key, "-[SkeldaKVStorage setData:forKey:]");
}

void SkeldaKVStorage::setInteger(std::int64_t value, const std::optional<std::string>& key) {
  set(value, key, "-[SkeldaKVStorage setInteger:forKey:]");
}

void SkeldaKVStorage::setFloat(float value, const std::optional<std::string>& key) {
  set(value, key, "-[SkeldaKVStorage setFloat:forKey:]");
}

void SkeldaKVStorage::setDouble(double value, const std::optional<std::string>& key) {
  set(value, key, "-[SkeldaKVStorage setDouble:forKey:]");
}

void SkeldaKVStorage::setBoolean(bool value, const std::optional<std::string>& key) {
  set(value, key, "-[SkeldaKVStorage setBoolean:forKey:]");
}

void SkeldaKVStorage::removeObjectForKey(const std::optional<std::string>& key) {
  if (!SkeldaUtil::assertNotNil(key, "-[SkeldaKVStorage removeObjectForKey:]")) return;
  post<&SkeldaKVStorage::onqueue_change>(platform::Dictionary{{*key, platform::Value()}});
}

void SkeldaKVStorage::removeAllObjects() {
  post<&SkeldaKVStorage::onqueue_removeAll>();
}

platform::Value SkeldaKVStorage::objectForKey(const std::optional<std::string>& key) {
  if (!SkeldaUtil::assertNotNil(key, "-[SkeldaKVStorage objectForKey:]")) return {};
  platform::Value found;
  syncBlock([&] {
    onqueue_load();
    if (const platform::Value* stored = dictionary_.find(*key)) found = *stored;
  });
  return found;
}

std::optional<std::string> SkeldaKVStorage::stringForKey(const std::optional<std::string>& key) {
  platform::Value object = objectForKey(key);
  std::string* text = object.text();
  return text != nullptr ? std::optional(std::move(*text)) : std::nullopt;
}

std::optional<platform::Data> SkeldaKVStorage::dataForKey(const std::optional<std::string>& key) {
  const platform::Value object = objectForKey(key);
  return object.data() != nullptr ? std::optional(*object.data()) : std::nullopt;
}

std::int64_t SkeldaKVStorage::integerForKey(const std::optional<std::string>& key,
                                            std::int64_t defaultValue) {
  const platform::Value object = objectForKey(key);
  return object.isNumber() ? object.integerValue() : defaultValue;
}

float SkeldaKVStorage::floatForKey(const std::optional<std::string>& key, float defaultValue) {
  const platform::Value object = objectForKey(key);
  return object.isNumber() ? static_cast<float>(object.doubleValue()) : defaultValue;
}

double SkeldaKVStorage::doubleForKey(const std::optional<std::string>& key, double defaultValue) {
  const platform::Value object = objectForKey(key);
  return object.isNumber() ? object.doubleValue() : defaultValue;
}

bool SkeldaKVStorage::booleanForKey(const std::optional<std::string>& key, bool defaultValue) {
  const platform::Value object = objectForKey(key);
  return object.isNumber() ? object.boolValue() : defaultValue;
}

std::vector<std::string> SkeldaKVStorage::allKeys() {
  std::vector<std::string> keys;
  syncBlock([&] {
    onqueue_load();
    for (const auto& entry : dictionary_) keys.push_back(entry.first);
  });
  return keys;
}

void SkeldaKVStorage::forEachKey(const std::function<void(const std::string& key)>& visit) {
  for (const std::string& key : allKeys()) visit(key);
}

bool SkeldaKVStorage::isPersisted() {
  bool persisted = false;
  syncBlock([&] {
    onqueue_load();
    persisted = loaded_ && saved_;
  });
  return persisted;
}
