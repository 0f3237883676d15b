#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Foundation/Value.h"

namespace skelda::platform {

/// A program's bundle: the nearest folder above the running program whose name ends in ".appex" or
/// ".app" and that holds an Info.plist. Without one, the bundle is the program's own folder and
/// its information dictionary is empty. Immutable once made, any thread.
class Bundle {
 public:
  /// The bundle of the running program, found once. Never null.
  static std::shared_ptr<const Bundle> main();
  /// Puts another bundle in the place of the main one, or takes it back with null.
  static void setMain(std::shared_ptr<const Bundle> bundle);
  /// The bundle above `executablePath`.
  static std::shared_ptr<const Bundle> above(const std::string& executablePath);
  Bundle(std::string path, std::string executablePath, Dictionary information);

  const std::string& bundlePath() const noexcept { return path_; }
  const std::string& executablePath() const noexcept { return executablePath_; }
  const Dictionary& infoDictionary() const noexcept { return information_; }
  /// The value under `key`, or null.
  Value objectForInfoDictionaryKey(std::string_view key) const;
  /// "CFBundleIdentifier" when it is a text that is not empty.
  std::optional<std::string> bundleIdentifier() const;
  /// What tells this application's storage from that of others: its identifier, and without one
  /// the name of its folder.
  std::string storageName() const;

 private:
  std::string path_;
  std::string executablePath_;
  Dictionary information_;
};

}  // namespace skelda::platform
