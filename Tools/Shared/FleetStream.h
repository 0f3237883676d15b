#pragma once

/// The names that the collectors and those who read their stream agree on; docs/fleet-stream.md
/// says what stands under them.
namespace skelda::tools::fleet {

constexpr const char* kStream = "SKELDA_LOGS";
constexpr const char* kSubjects = "SKELDA_LOGS.>";
constexpr const char* kSubjectPrefix = "SKELDA_LOGS.";  // before the SHA-256 of the API key

constexpr const char* kDamagedStream = "SKELDA_DAMAGED";
constexpr const char* kDamagedSubjects = "SKELDA_DAMAGED.>";
constexpr const char* kDamagedPrefix = "SKELDA_DAMAGED.";  // before the same digest

constexpr const char* kIdHeader = "Nats-Msg-Id";
constexpr const char* kReceivedHeader = "Skelda-Received";
constexpr const char* kLengthHeader = "Skelda-Length";
constexpr const char* kFramesHeader = "Skelda-Frames";
constexpr const char* kFaultHeader = "Skelda-Fault";

}  // namespace skelda::tools::fleet
