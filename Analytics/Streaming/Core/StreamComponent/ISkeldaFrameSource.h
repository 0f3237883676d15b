#pragma once

#include <string_view>

/// A stage that makes messages. Each source class has a static getSourceInstance(), which the class
/// registry calls by the class's name.
class ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaFrameSource";

 protected:
  ~ISkeldaFrameSource() = default;
};
