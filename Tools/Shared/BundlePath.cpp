#include "Tools/Shared/BundlePath.h"

#include <filesystem>
#include <stdexcept>

namespace skelda::tools {

namespace fs = std::filesystem;

std::string programOfBundle(const std::string& named) {
  std::error_code error;
  const fs::path path = fs::canonical(named, error);
  if (error) throw std::runtime_error(named + ": " + error.message());
  if (!fs::is_directory(path)) return path.string();
  fs::path folder = path;
  const fs::path inside = path / "PlugIns";
  if (path.extension() == ".app" && fs::is_directory(inside)) {
    for (const auto& entry : fs::directory_iterator(inside)) {
      if (entry.path().extension() != ".appex") continue;
      if (folder != path) throw std::runtime_error(named + " has several extensions: name one");
      folder = entry.path();
    }
  }
  return (folder / folder.stem()).string();
}

}  // namespace skelda::tools
