#include <benchmark/benchmark.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/ConcurrentQueue.h"
#include "platform/OperationQueue.h"
#include "platform/SerialQueue.h"

namespace {

// A task handed over and waited for: what the copy pays twice for every buffer.
void serialQueueAsyncAndWait(benchmark::State& state) {
  platform::SerialQueue queue("serial benchmark");
  int64_t tasksRun = 0;
  for ([[maybe_unused]] auto _ : state) {
    queue.async([&tasksRun] { ++tasksRun; });
    queue.sync([] {});
  }
  if (tasksRun != state.iterations()) state.SkipWithError("a task was lost");
}

// Many tasks handed over before the first wait: what a task costs when nobody sleeps.
void serialQueueHundredTasks(benchmark::State& state) {
  constexpr int64_t tasks = 100;
  platform::SerialQueue queue("serial benchmark");
  int64_t tasksRun = 0;
  for ([[maybe_unused]] auto _ : state) {
    for (int64_t task = 0; task < tasks; ++task) queue.async([&tasksRun] { ++tasksRun; });
    queue.sync([] {});
  }
  if (tasksRun != state.iterations() * tasks) state.SkipWithError("a task was lost");
  state.SetItemsProcessed(tasksRun);
}

// What the copy pays for every buffer to reach all destinations and the digest.
void concurrentQueueApply(benchmark::State& state) {
  platform::ConcurrentQueue queue("concurrent benchmark");
  const auto tasks = static_cast<std::size_t>(state.range(0));
  std::atomic<int64_t> tasksRun = 0;
  for ([[maybe_unused]] auto _ : state) queue.apply(tasks, [&tasksRun](std::size_t) { ++tasksRun; });
  if (tasksRun != state.iterations() * state.range(0)) state.SkipWithError("a task was lost");
}

void operationQueueAddAndWait(benchmark::State& state) {
  platform::OperationQueue queue("operation benchmark");
  int64_t operationsRun = 0;
  for ([[maybe_unused]] auto _ : state) {
    queue.addOperationWithBlock([&operationsRun] { ++operationsRun; });
    queue.waitUntilAllOperationsAreFinished();
  }
  if (operationsRun != state.iterations()) state.SkipWithError("an operation was lost");
}

BENCHMARK(serialQueueAsyncAndWait)->UseRealTime();
BENCHMARK(serialQueueHundredTasks)->UseRealTime();
BENCHMARK(concurrentQueueApply)->Arg(1)->Arg(2)->Arg(4)->ArgName("tasks")->UseRealTime();
BENCHMARK(operationQueueAddAndWait)->UseRealTime();

}  // namespace
