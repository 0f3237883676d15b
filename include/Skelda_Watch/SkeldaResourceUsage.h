#pragma once

#include <cstdint>

// Resource figures of the process and the machine. Any thread; 0 where the system does not say.

/// The sum over this process's threads of their share of one processor, in percent.
__attribute__((visibility("default"))) float total_cpu_usage();

// The machine's memory in bytes: what cannot be paged out, what was used lately, what was not, and
// what is unused.
__attribute__((visibility("default"))) std::uint64_t wiredMemoryUsage();
__attribute__((visibility("default"))) std::uint64_t activeMemoryUsage();
__attribute__((visibility("default"))) std::uint64_t inActiveMemoryUsage();
__attribute__((visibility("default"))) std::uint64_t freeMemoryUsage();
