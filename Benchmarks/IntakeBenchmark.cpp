// What it costs a caller to have 200 bytes kept, beside a queue under a mutex that keeps nothing.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "Analytics/Intake/Account/SkeldaIntakeFile.h"

namespace {

constexpr std::size_t kLength = 200;
/// So many fit into the journal: what is measured are calls that find room.
constexpr benchmark::IterationCount kCalls = 8000;

std::shared_ptr<SkeldaIntakeFile> file;

void emptyFile(const benchmark::State&) {
  const std::filesystem::path path = "intake-benchmark_1.journal";
  if (!file) file = SkeldaIntakeFile::open(path, std::size_t{16} << 20, 1);
  std::filesystem::remove(path);
  while (const auto record = file->takeOldest()) {
    file->settle(record->ticket, SkeldaIntakeOutcome::stored);
  }
}

void append(benchmark::State& state) {
  const std::vector<char> payload(kLength, 'x');
  std::uint64_t refused = 0;
  for (auto _ : state) {
    const auto ticket = file->append(SkeldaIntakeFile::Kind::event, 1, 2, kLength,
                                     [&](char* to) { std::memcpy(to, payload.data(), kLength); });
    refused += ticket == kSkeldaNoTicket ? 1 : 0;
  }
  if (!file->isProtected() || refused > 0) state.SkipWithError("no room in the journal");
}
BENCHMARK(append)
    ->Name("intake/append")
    ->Setup(emptyFile)
    ->Threads(1)
    ->Threads(4)
    ->Iterations(kCalls)
    ->UseRealTime();

std::mutex mutex;
std::vector<std::vector<char>> queue;

void push(benchmark::State& state) {
  const std::vector<char> payload(kLength, 'x');
  for (auto _ : state) {
    std::vector<char> copy(payload);
    const std::lock_guard lock(mutex);
    queue.push_back(std::move(copy));
  }
}
BENCHMARK(push)
    ->Name("intake/mutex_guarded_push")
    ->Setup([](const benchmark::State&) { queue.clear(); })
    ->Threads(1)
    ->Threads(4)
    ->Iterations(kCalls)
    ->UseRealTime();

}  // namespace
