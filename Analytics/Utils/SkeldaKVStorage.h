#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"
#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// A small persistent dictionary of property-list values: in memory, and written whole to one
/// archive file, atomically and synchronised, after every change. Writes are posted to its queue
/// and return at once; reads wait on it, so that a read after a write of the same thread sees the
/// write. A change that could not be written lives in memory and goes with the next one:
/// storeObjects() and isPersisted() say what is on disk.
///
/// A file that is absent or malformed is an empty store; what stands in its place and is no file is
/// set aside. A file that cannot be read just now is tried again at every operation; until then
/// what is set lives in memory only and the file is left alone, then what was set meanwhile wins.
class SkeldaKVStorage : public SkeldaActor {
 public:
  static std::shared_ptr<SkeldaKVStorage> sharedInstance();
  /// The shared instance loads again, from the folder of that moment. For tests.
  static void resetSharedInstance();
  /// A store of its own over the file at `path`.
  static std::shared_ptr<SkeldaKVStorage> storageWithFile(std::string path);
  /// <storage folder>Skelda.KV.storage, without a separator.
  static std::string defaultFilePath();

  std::string_view className() const noexcept override { return "SkeldaKVStorage"; }
  void didInit() override;

  /// Null values, and kinds that no property list has, are refused.
  void setObject(const platform::Value& object, const std::optional<std::string>& key);
  void setString(const std::optional<std::string>& text, const std::optional<std::string>& key);
  void setData(const std::optional<platform::Data>& data, const std::optional<std::string>& key);
  void setInteger(std::int64_t value, const std::optional<std::string>& key);
  void setFloat(float value, const std::optional<std::string>& key);
  void setDouble(double value, const std::optional<std::string>& key);
  void setBoolean(bool value, const std::optional<std::string>& key);
  /// As setObject() for each, but in one write, waits, and says whether the change is on disk. On
  /// the caller's own thread where the store has nothing else to do, which spares two changes of
  /// thread.
  bool storeObjects(const platform::Dictionary& objects);
  void removeObjectForKey(const std::optional<std::string>& key);
  void removeAllObjects();

  /// Null where there is none.
  platform::Value objectForKey(const std::optional<std::string>& key);
  std::optional<std::string> stringForKey(const std::optional<std::string>& key);
  std::optional<platform::Data> dataForKey(const std::optional<std::string>& key);
  // The default where the stored object is no number.
  std::int64_t integerForKey(const std::optional<std::string>& key, std::int64_t defaultValue = 0);
  float floatForKey(const std::optional<std::string>& key, float defaultValue = 0);
  double doubleForKey(const std::optional<std::string>& key, double defaultValue = 0);
  bool booleanForKey(const std::optional<std::string>& key, bool defaultValue = false);
  std::vector<std::string> allKeys();

  platform::Value objectForKeyedSubscript(const std::optional<std::string>& key) {
    return objectForKey(key);
  }
  void setObjectForKeyedSubscript(const platform::Value& object,
                                  const std::optional<std::string>& key) {
    setObject(object, key);
  }
  platform::Value operator[](std::string_view key) { return objectForKey(std::string(key)); }
  /// Enumerates a copy of the keys.
  void forEachKey(const std::function<void(const std::string& key)>& visit);

  /// Whether what the file holds is known; asks it once more where it is not.
  bool isReadable();
  /// Whether the last change, be it a removal, reached the disk.
  bool isPersisted();

 private:
  explicit SkeldaKVStorage(std::string path);

  static bool isStorable(const platform::Value& object, const std::optional<std::string>& key,
                         std::string_view method);
  void set(platform::Value object, const std::optional<std::string>& key, std::string_view method);
  void onqueue_load();
  /// Null values remove.
  void onqueue_change(const platform::Dictionary& changes);
  void onqueue_removeAll();
  void onqueue_save();

  const std::string path_;
  platform::Dictionary dictionary_;
  bool loaded_ = false;
  bool saved_ = false;
  /// Changes made while the file could not be read, in their order.
  std::vector<std::pair<std::string, platform::Value>> pending_;
};
