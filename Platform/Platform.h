#pragma once

// The short name of the platform layer inside the project. Never included by an installed header.
namespace skelda::platform {}
namespace platform = skelda::platform;
