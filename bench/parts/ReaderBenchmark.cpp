#include <benchmark/benchmark.h>

#include <cstdint>
#include <filesystem>

#include "KDXFileTools/kdxdispatchcopy/KDXReadFile.h"
#include "bench/parts/Scratch.h"
#include "platform/DispatchGroup.h"
#include "platform/SerialQueue.h"

namespace {

// Reads a file from start to end, with nothing done to what was read. From the disk every read is one of the device.
void readFile(benchmark::State& state, std::filesystem::path (*directory)()) {
  const Scratch scratch(directory());
  const auto size = static_cast<std::size_t>(state.range(0)) << 20;
  const std::filesystem::path file = scratch.makeFile("clip.mov", size);
  platform::SerialQueue queue("reader benchmark");
  int64_t bytesRead = 0;
  for ([[maybe_unused]] auto _ : state) {
    platform::DispatchGroup end;
    end.enter();
    KDXReadFile(file, queue, [&end, &bytesRead](bool isLast, const std::byte*, int64_t length, int32_t) {
      bytesRead += length;
      if (isLast) end.leave();
    });
    end.wait();
  }
  if (bytesRead != state.iterations() * static_cast<int64_t>(size)) state.SkipWithError("the file was not read whole");
  state.SetBytesProcessed(bytesRead);
}

BENCHMARK_CAPTURE(readFile, disk, diskDirectory)
    ->Arg(1)
    ->Arg(256)
    ->ArgName("MiB")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(readFile, tmpfs, memoryDirectory)
    ->Arg(1)
    ->Arg(256)
    ->ArgName("MiB")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
