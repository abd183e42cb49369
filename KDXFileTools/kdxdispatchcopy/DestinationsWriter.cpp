#include "KDXFileTools/kdxdispatchcopy/DestinationsWriter.h"

void DestinationsWriter::writeToAll(std::vector<platform::OutputFile>& destinations, std::span<const std::byte> bytes,
                                    const std::function<void()>& digest) const {
  const std::size_t writes = destinations.size();
  if (bytes.size() <= platform::notWorthAThread) {
    digest();
    _queue.apply(writes, [&](std::size_t index) { write(destinations, index, bytes); });
    return;
  }
  // apply runs the last iteration on the calling thread.
  _queue.apply(writes + 1, [&](std::size_t index) {
    if (index == writes) {
      digest();
    } else {
      write(destinations, index, bytes);
    }
  });
}

void DestinationsWriter::write(std::vector<platform::OutputFile>& destinations, std::size_t index,
                               std::span<const std::byte> bytes) const {
  const int64_t result = destinations[index].write(bytes.data(), bytes.size());
  const bool isShort = result >= 0 && static_cast<std::size_t>(result) < bytes.size();
  if (result < 0 || (isShort && _shortWrite == ShortWrite::isFailure)) _endForFailedWrite(index, result);
}
