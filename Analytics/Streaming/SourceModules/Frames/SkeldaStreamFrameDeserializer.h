#pragma once

#include <memory>

#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamFrameDeserializer.h"
#include "Platform/Foundation/Object.h"

/// The reader of the frame format. Types are not checked, and neither is a CRC: a frame that was
/// written is handed on as it stands, and the far end decides.
class SkeldaStreamFrameDeserializer : public ISkeldaStreamFrameDeserializer,
                                      public platform::Object {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamFrameDeserializer";

  static std::shared_ptr<SkeldaStreamFrameDeserializer> streamFrameDeserializer();

  std::string_view className() const noexcept override { return kClassName; }
  bool isAtLeastOneFrameInData(std::string_view data,
                               std::uint32_t* totalBytesInFrame = nullptr) const override;
  SkeldaStreamFrame::Ref streamFrameFromData(
      std::string_view data, std::size_t* bytesReadSoFar = nullptr,
      platform::ErrorRef* error = nullptr,
      const std::shared_ptr<const std::string>& owner = nullptr) const override;
  std::uint32_t frameTypeFromData(std::string_view data,
                                  platform::ErrorRef* error = nullptr) const override;
  std::vector<SkeldaStreamFrame::Ref> allStreamFramesFromData(
      std::string_view data, std::size_t* totalBytesRead = nullptr,
      platform::ErrorRef* error = nullptr) const override;
  std::size_t lengthOfFrameHeader() const noexcept override;
  std::size_t lengthOfFrameFooter() const noexcept override;
  void debugLogFrameData(std::string_view data, std::string_view tag) const override;
};
