#pragma once

#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/SystemFiles.h"
#include "Tests/Support/Basics.h"

namespace skelda::testing {

/// A folder of the test's own, removed with its owner.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    path_ = (std::filesystem::temp_directory_path() / "skelda-test-XXXXXX").string();
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp " + path_);
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(TemporaryDirectory&&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

/// Sets environment variables and puts the old ones back. While it lives no other thread may read
/// the environment for the first time.
class ScopedEnvironment {
 public:
  ~ScopedEnvironment() {
    for (const auto& [name, value] : saved_) apply(name, value);
  }
  /// Without a value the variable is taken away.
  void set(const std::string& name, const std::optional<std::string>& value) {
    const char* old = ::getenv(name.c_str());
    saved_.emplace(name, old == nullptr ? std::nullopt : std::optional<std::string>(old));
    apply(name, value);
  }

 private:
  static void apply(const std::string& name, const std::optional<std::string>& value) {
    value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
  }
  std::map<std::string, std::optional<std::string>> saved_;
};

/// While it lives new folders are in memory, where the system has a place for that: of use to tests
/// that start hundreds of processes, each of which waits for the disk a dozen times.
struct FoldersInMemory : private ScopedEnvironment {
  FoldersInMemory() {
    if (std::filesystem::exists("/dev/shm")) set("TMPDIR", "/dev/shm");
  }
};

/// A folder in which the system's files are looked for while it lives.
struct SystemFolder : TemporaryDirectory {
  SystemFolder() { setSystemRoot(path()); }
  ~SystemFolder() { setSystemRoot(""); }
};

/// A home folder of the test's own: HOME and the XDG folders point into it.
class TemporaryHome : public TemporaryDirectory {
 public:
  TemporaryHome() {
    environment_.set("HOME", path());
    environment_.set("XDG_DATA_HOME", *this / "data");
    environment_.set("XDG_STATE_HOME", *this / "state");
    environment_.set("XDG_DOCUMENTS_DIR", path());
  }
  ScopedEnvironment& environment() { return environment_; }

 private:
  ScopedEnvironment environment_;
};

/// Makes this process the watch extension of an application with that Info.plist while it lives.
struct HostBundle {
  explicit HostBundle(Dictionary of = {}, const std::string& at = "/Run.app/PlugIns/Watch.appex") {
    Bundle::setMain(std::make_shared<Bundle>(at, at + "/run", std::move(of)));
  }
  ~HostBundle() { Bundle::setMain(nullptr); }
};

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
/// The folders above it are made where they are missing.
inline void writeFile(const std::string& path, std::string_view text) {
  std::error_code isThere;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), isThere);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  ASSERT_TRUE(out.good()) << path;
}
/// What everybody may do with it, 0 where it is not there.
inline unsigned modeOf(const std::string& path) {
  struct ::stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777U : 0U;
}
/// The names in a folder, in order; none where there is no folder.
inline Texts namesIn(const std::string& folder) {
  Texts names;
  std::error_code absent;
  for (const auto& entry : std::filesystem::directory_iterator(folder, absent))
    names.push_back(entry.path().filename());
  std::ranges::sort(names);
  return names;
}
/// The paths under which what stood at that path was set aside.
inline Texts setAsideOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path();
  Texts paths;
  for (const auto& name : namesIn(folder)) paths.push_back(folder + "/" + name);
  std::erase_if(paths, [&](auto& other) { return !other.starts_with(path + ".unread_"); });
  return paths;
}

}  // namespace skelda::testing
