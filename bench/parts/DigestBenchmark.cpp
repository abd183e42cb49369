#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "digest/KDXDigestContext.h"
#include "platform/Memory.h"

namespace {

constexpr std::size_t bufferSize = std::size_t{10} << 20;  // what the reader hands on

// One core's rate: no offload that digests one stream can be faster.
void digest(benchmark::State& state, uint32_t algorithm) {
  const platform::PageAlignedMemory buffer = platform::allocatePages(bufferSize);
  std::memset(buffer.get(), 'k', bufferSize);
  const std::shared_ptr<KDXDigestContext> context = KDXDigestContext::contextWithAlgorithm(algorithm);
  for ([[maybe_unused]] auto _ : state) context->update(buffer.get(), bufferSize);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bufferSize));
}

// What a digest costs besides its bytes; a sequence makes three or more for every frame.
void digestOfNothing(benchmark::State& state, uint32_t algorithm) {
  for ([[maybe_unused]] auto _ : state) {
    const std::shared_ptr<KDXDigestContext> context = KDXDigestContext::contextWithAlgorithm(algorithm);
    context->finalize();
    benchmark::DoNotOptimize(context->digestString());
  }
}

BENCHMARK_CAPTURE(digest, MD5, KDXDigestAlgorithmMD5);
BENCHMARK_CAPTURE(digest, SHA1, KDXDigestAlgorithmSHA1);
BENCHMARK_CAPTURE(digest, XXHash64, KDXDigestAlgorithmXXHash64);
BENCHMARK_CAPTURE(digest, XXHash64BE, KDXDigestAlgorithmXXHash64BE);
BENCHMARK_CAPTURE(digestOfNothing, MD5, KDXDigestAlgorithmMD5);
BENCHMARK_CAPTURE(digestOfNothing, SHA1, KDXDigestAlgorithmSHA1);
BENCHMARK_CAPTURE(digestOfNothing, XXHash64BE, KDXDigestAlgorithmXXHash64BE);

}  // namespace
