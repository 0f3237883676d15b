#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessage.h"

namespace skelda::fleet {

/// Frame logs as many devices would have them, made from recorded ones by the agent's own writer of
/// frames: each device has its identifiers, each of its logs its counter, sessions and times. The
/// same device and counter give the same bytes. For one thread.
class LoadBodies {
 public:
  struct Body {
    std::string bytes;
    std::uint32_t frames = 0;
  };

  /// Reads every log that `paths` name, files and folders. The records of a log are repeated until
  /// it has `leastBytes`. `run` tells the devices of one run from those of another. Times begin at
  /// `beginsAt`, milliseconds since 1970. Throws std::runtime_error where there is no whole log.
  LoadBodies(const std::vector<std::string>& paths, std::size_t leastBytes, std::string run,
             std::int64_t beginsAt);
  ~LoadBodies();

  /// The log of that number, from 0, of a device.
  Body body(std::uint32_t device, std::uint32_t log);
  std::size_t recordings() const noexcept { return recordings_.size(); }

 private:
  struct Frame {
    std::shared_ptr<SkeldaStreamMessage> message;
    std::int64_t epoch = 0;
    nlohmann::json payload;  // of those that are written anew for each log
  };
  struct Recording {
    std::vector<Frame> frames;
    std::int64_t begins = 0;
  };

  void read(const std::string& path, std::size_t leastBytes);
  void write(Frame& frame, std::uint32_t device, std::uint32_t log, std::int64_t later,
             std::string& bytes);
  std::string identifier(std::uint32_t device) const;

  const std::string run_;
  const std::int64_t beginsAt_;
  std::vector<Recording> recordings_;
};

}  // namespace skelda::fleet
