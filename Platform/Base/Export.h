#pragma once

/// Marks what the shared library exports: the public face, and the few platform names a host needs.
#define SKELDA_EXPORT __attribute__((visibility("default")))
