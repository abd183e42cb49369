#include "KDXFileTools/kdxdispatchcopy/DestinationsWriter.h"

#include <algorithm>
#include <numeric>
#include <optional>

#include "KDXFileTools/kdxdispatchcopy/CopySteps.h"

void DestinationsWriter::writeToAll(std::vector<platform::OutputFile>& destinations, std::span<const std::byte> bytes,
                                    const std::function<void()>& digest,
                                    const std::function<void(std::size_t, int64_t)>& endForFailedWrite) {
  const std::size_t writes = destinations.size();
  const auto write = [&](std::size_t index) {
    const int64_t result = destinations[index].write(bytes.data(), bytes.size());
    if (result < 0) endForFailedWrite(index, result);
  };
  if (bytes.size() <= notWorthAThread) {
    digest();
    _queue.apply(writes, write);
    return;
  }
  _processorTimes.resize(writes + 1);
  // The last piece of work is done on the calling thread.
  const std::size_t first = (longestWork() + 1) % (writes + 1);
  const std::optional<std::size_t> processorOfDigest =
      keepsWritesOffTheDigest() ? platform::currentProcessor() : std::nullopt;
  keepReadingOff(keepsReadingOffTheDigest() ? processorOfDigest : std::nullopt);
  _queue.apply(writes + 1, [&](std::size_t place) {
    if (place != writes) _processors.keepThisThreadOff(processorOfDigest);
    const std::size_t work = (first + place) % (writes + 1);
    const auto before = platform::processorTimeOfThisThread();
    if (work == writes) {
      digest();
    } else {
      write(work);
    }
    _processorTimes[work] += platform::processorTimeOfThisThread() - before;
  });
}

std::chrono::nanoseconds DestinationsWriter::timeOfWrites() const {
  return std::accumulate(_processorTimes.begin(), _processorTimes.end() - 1, std::chrono::nanoseconds{});
}

// The position of its time: the digest's, which is the last, before that of a write that takes as long.
std::size_t DestinationsWriter::longestWork() const {
  const auto longest = std::max_element(_processorTimes.rbegin(), _processorTimes.rend());
  return static_cast<std::size_t>(_processorTimes.rend() - longest) - 1;
}

// Where there are fewer processors than pieces of work, the system gives each an equal share, and the digest, which can't be
// divided, ends last. Writes that hardly need a processor take little from it. Those that need far more than the processors
// left to them would end last themselves; up to half as much again they still gain by it, since a processor gets less done
// when work takes turns on it. What two digests take is not known: the second runs on a thread of its own.
bool DestinationsWriter::keepsWritesOffTheDigest() const {
  const bool isDigestLongest = longestWork() == _processorTimes.size() - 1;
  if (_hasTwoDigests || !isDigestLongest || _processorTimes.size() <= _processors.count()) return false;
  const std::chrono::nanoseconds digest = _processorTimes.back();
  return timeOfWrites() > digest / 4 && timeOfWrites() <= digest * (_processors.count() - 1) * 3 / 2;
}

// The buffer that the end of a digest sets free is read into next, and the system wakes the reading thread where that end was
// noticed: in front of the next digest, with another processor idle. The reading goes to the writes while they end before
// the digest; where they don't, the digest's processor is the one that has time to read.
bool DestinationsWriter::keepsReadingOffTheDigest() const {
  return keepsWritesOffTheDigest() && timeOfWrites() <= _processorTimes.back() * (_processors.count() - 1);
}

void DestinationsWriter::keepReadingOff(std::optional<std::size_t> processor) {
  if (processor == _processorNotReadOn) return;
  if (_processors.keepThreadOff(_readingThread, processor)) _processorNotReadOn = processor;
}
