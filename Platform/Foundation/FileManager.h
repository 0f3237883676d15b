#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Error.h"

namespace skelda::platform {

/// Sizes in bytes.
struct FileSystemAttributes {
  std::uint64_t size = 0;
  std::uint64_t freeSize = 0;
};

/// Whole-file operations on paths (UTF-8). Folders are made with mode 0700, files with 0600.
/// Failures come back as false or nothing with a POSIX error. What writes falls back on the
/// StorageReserve, and takes only regular files for files. Safe from any thread. Every method is
/// virtual, so that a test can override the one it wants to break and forward the rest.
class FileManager {
 public:
  virtual ~FileManager() = default;
  /// The process-wide manager.
  static const std::shared_ptr<FileManager>& defaultManager();

  /// False only where there is certainly nothing: what cannot be looked at just now may be there.
  virtual bool fileExistsAtPath(const std::string& path) const;
  virtual bool createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                     ErrorRef* error = nullptr);
  /// Publishes a copy of a regular file: whoever watches the destination's folder sees the whole
  /// file or none. The copy grows under a temporary name in the parent of the destination's folder,
  /// which must be on the same file system. Synchronised, folder included, when it returns. An
  /// existing destination is an error (EEXIST) and stays as it is. Where the last step, the
  /// folder's synchronisation, fails, the copy is there all the same.
  virtual bool copyItemAtPath(const std::string& source, const std::string& destination,
                              ErrorRef* error = nullptr);
  /// A file, or a folder with all that is in it; links are not followed.
  virtual bool removeItemAtPath(const std::string& path, ErrorRef* error = nullptr);
  /// An existing file is overwritten in place.
  virtual bool createFileAtPath(const std::string& path, const Data& contents = {},
                                ErrorRef* error = nullptr);
  /// Names, not paths, without "." and ".."; unordered.
  virtual std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(
      const std::string& path, ErrorRef* error = nullptr) const;
  virtual std::optional<Data> contentsAtPath(const std::string& path,
                                             ErrorRef* error = nullptr) const;
  /// Atomically: temporary file in the same folder, synchronise, rename over `path`, synchronise
  /// the folder. Otherwise in place.
  virtual bool writeData(const Data& data, const std::string& path, bool atomically,
                         ErrorRef* error = nullptr);
  /// A file of a name that was free, its bytes synchronised. Its name is on disk once something
  /// synchronises the folder.
  virtual bool storeNewFile(const Data& data, const std::string& path, ErrorRef* error = nullptr);
  virtual std::optional<FileSystemAttributes> attributesOfFileSystemForPath(
      const std::string& path, ErrorRef* error = nullptr) const;
  /// Sets the extended attribute user.xdg.robots.backup to "false"; true as well where the file
  /// system has no attributes.
  virtual bool excludeFromBackup(const std::string& path, ErrorRef* error = nullptr);

  /// Removes what copies and atomic writes that were cut short left directly in `folder`: the files
  /// named kTemporaryPrefix and something, but for those that this process is making. The caller
  /// sees to it that no other process is at work there. How many were removed.
  virtual std::size_t sweepTemporaryFiles(const std::string& folder, ErrorRef* error = nullptr);
  static constexpr std::string_view kTemporaryPrefix = ".skelda-tmp-";

  /// ${XDG_DATA_HOME:-~/.local/share}/<bundle identifier>, or the name of the bundle's folder where
  /// it has no identifier. Not created here.
  static std::string applicationSupportDirectory();
  /// ${XDG_DOCUMENTS_DIR:-~}
  static std::string documentsDirectory();
  /// ${XDG_STATE_HOME:-~/.local/state}
  static std::string stateDirectory();
};

}  // namespace skelda::platform
