#pragma once

#include <memory>
#include <string>

#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"
#include "Platform/Platform.h"

/// The address to which frame logs are uploaded. Any thread; a read sees the writes that its thread
/// made before. An address is kept as it is given; one that is no absolute http or https address is
/// said at once, and sending to it fails.
class SkeldaNetworkURLsDataProvider : public SkeldaActor {
 public:
  static constexpr std::string_view kClassName = "SkeldaNetworkURLsDataProvider";
  /// Resolves nowhere: nothing leaves a machine before somebody says where to.
  static constexpr std::string_view kDefaultServerURL = "https://data.skelda.example/v1/skd.do";

  static std::shared_ptr<SkeldaNetworkURLsDataProvider> sharedInstance();
  /// Whether logs can be sent there at all.
  static bool isAbsoluteHTTPAddress(const std::string& url);
  std::string_view className() const noexcept override { return kClassName; }
  void setServerURL(std::string url);
  std::string serverURL();

 protected:
  SkeldaNetworkURLsDataProvider();

 private:
  std::string internalAnalyticsServerURL_;
};
