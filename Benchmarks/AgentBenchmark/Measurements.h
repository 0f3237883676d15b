#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "Skelda_Watch/SkeldaValue.h"

// The measurements of the whole agent. Each wants a process of its own, with the agent not yet
// started, and answers one JSON object.
namespace measure {

using Json = nlohmann::ordered_json;

/// The event that everything is measured with: five parameters.
extern const SkeldaValue kName;
SkeldaValue fiveParameters(std::uint64_t number);
void logEvent(std::uint64_t number);

std::filesystem::path storageFolder();
/// Until nothing on disk has changed for a second. False after two minutes.
bool rest();

/// What a call costs its caller, beside a push of the same data on a queue under a mutex whose
/// other end is emptied by a thread: nanoseconds at p50 and p99, for so many threads at once.
Json callCost(unsigned threads, std::uint64_t callsPerThread);
/// The first call, which builds everything: milliseconds.
Json firstCall();
/// So many calls in a loop: how many were answered 1, how many the account says were accepted, and
/// the memory that they added at most.
Json flood(std::uint64_t events);
/// Frames made durable per second by the whole pipeline, and user CPU per event. Its logs are kept
/// in `keepClosed`, so that bareLoop() can write the same.
Json pipeline(std::uint64_t events, const std::filesystem::path& keepClosed);
/// Writes the logs of that folder by itself, as the pipeline has to: each frame synchronised, each
/// log rolled (copied and published, counter and flag replaced). In `scratch`. With the transfer
/// each log is stored as a block too, and an index replaced. Says as well how often that alone
/// gives the processor up.
Json bareLoop(const std::filesystem::path& logs, const std::filesystem::path& scratch,
              bool withTransfer);
/// Memory that the agent adds, its threads, and how often they wake when idle.
Json resources(std::uint64_t events);
/// Logs a burst as fast as it can and kills the process, at once or when the pipeline has settled.
/// The events are numbered from 1; logs that are closed are kept as by pipeline().
[[noreturn]] void burstAndKill(std::uint64_t events, bool settled,
                               const std::filesystem::path& keepClosed);
/// Logs a burst and says how long after its last call all of it was durable.
Json burstAndRest(std::uint64_t events);

}  // namespace measure
