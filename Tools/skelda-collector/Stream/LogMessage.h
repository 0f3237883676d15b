#pragma once

#include <string>
#include <string_view>

#include "Tools/Shared/StreamAccess.h"
#include "Tools/skelda-collector/LogSink.h"

// A log as a message of the stream (docs/fleet-stream.md), and as what is kept of that message for
// the case that it has to be published again: its subject and its headers, a line each, an empty
// line, its body.

/// Null where there is no memory for it.
skelda::tools::NatsMessage messageOfLog(const ArrivedLog& log);
/// The record of a message, but for the message's body: the lines, with the empty one behind them.
std::string headOfRecord(natsMsg* message);
std::string_view bodyOf(natsMsg* message);
/// With another id; null for what is no record.
skelda::tools::NatsMessage messageOfRecord(std::string_view record, const std::string& id);
