#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Skelda_Watch/SkeldaValue.h"

/// A recorded run: what happened, and when after its start. The file has one event a line: seconds,
/// name, then names and values of parameters in turn. A value that is a number and not quoted is
/// logged as a number, every other as text.
struct Recording {
  struct Event {
    std::chrono::milliseconds at;
    std::string name;
    SkeldaDictionary parameters;
  };
  /// In order of time; never empty.
  std::vector<Event> events;

  /// Throws std::runtime_error, naming the path, when the file cannot be read as a recording.
  static Recording read(const std::string& path);
};
