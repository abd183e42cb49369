#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>

#include "KDXFileTools/kdxdispatchcopy/KDXFileSequence.h"

namespace {

void sequenceFilenameForIndex(benchmark::State& state) {
  const std::shared_ptr<const KDXFileSequence> sequence =
      KDXFileSequence::initWithIdentifier("/media/card/A001C003_0000001-1000000.#######.dpx");
  if (sequence->filenameForIndex(41) != "/media/card/A001C003_0000042.dpx") state.SkipWithError("wrong name");
  uint64_t index = 0;
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(sequence->filenameForIndex(index));
    index = (index + 1) % sequence->duration();
  }
}

void sequenceFromIdentifier(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(KDXFileSequence::initWithIdentifier("/media/card/A001C003_1001-1100.####.dpx"));
  }
}

BENCHMARK(sequenceFilenameForIndex);
BENCHMARK(sequenceFromIdentifier);

}  // namespace
