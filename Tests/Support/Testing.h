#pragma once

// What a test of the agent or of its platform layer has at hand, beside the basics.

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/FaultyFiles.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/Recorded.h"
#include "Tests/Support/TemporaryDirectory.h"
