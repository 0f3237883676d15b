#pragma once

#include "Platform/Base/Log.h"
#include "Platform/Dispatch/MainQueue.h"

/// Where the agent's log lines go: SkeldaLogOutput::setSink(...).
using SkeldaLogOutput = skelda::platform::Log;
/// For a host that serves the main queue on a thread of its own: SkeldaMainQueue::run().
using SkeldaMainQueue = skelda::platform::MainQueue;
