#pragma once

#include "Platform/Base/Export.h"

// Inline, so that every layer may use them without linking the public classes; emitted wherever
// they are included, so that the shared library exports them.
#define SKELDA_CONSTANT [[gnu::used]] SKELDA_EXPORT inline constexpr const char*

extern "C" {

// Options of the transfer side, each a whole number.
/// Committed logs that may wait before the oldest are deleted.
SKELDA_CONSTANT kSkeldaStreamConfigOptionMaxFileTransferCount =
    "kSkeldaStreamConfigOptionMaxFileTransferCount";
/// Uploads that may run at the same time.
SKELDA_CONSTANT kSkeldaStreamConfigOptionMaxFileUploadCount =
    "kSkeldaStreamConfigOptionMaxFileUploadCount";
/// Bytes that the frame iterator reads from a frame log at a time.
SKELDA_CONSTANT kSkeldaStreamConfigOptionMaxBytesToReadFromFrameLogFile =
    "kSkeldaStreamConfigOptionMaxBytesToReadFromFrameLogFile";

/// The notification that says that the network status has changed.
SKELDA_CONSTANT kSkeldaNetworkStatusChangedNotification = "SkeldaNetworkStatusChangedNotification";

// Predefined names of user properties.
SKELDA_CONSTANT SkeldaPropertyCurrencyPreference = "Skelda.CurrencyPreference";
SKELDA_CONSTANT SkeldaPropertyPurchaser = "Skelda.Purchaser";
SKELDA_CONSTANT SkeldaPropertyRegisteredUser = "Skelda.RegisteredUser";
SKELDA_CONSTANT SkeldaPropertySubscriber = "Skelda.Subscriber";

}  // extern "C"

#undef SKELDA_CONSTANT
