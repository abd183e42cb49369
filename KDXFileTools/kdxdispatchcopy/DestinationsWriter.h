#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "platform/ConcurrentQueue.h"
#include "platform/OutputFile.h"
#include "platform/Processors.h"

// Takes the buffers of a copy, one after the other, to all destinations and into the digests. It measures how much of a
// processor each of that takes, and divides the processors by it: a copy lasts as long as its longest work, which must not
// wait for a thread to wake, nor for a processor that shorter work is using. Threads of the queue may stay kept off a
// processor when the copy is over.
class DestinationsWriter {
 public:
  // The queue, whose threads do nothing else meanwhile, and the thread that reads the buffers must outlive the writer. Two
  // digests are made of each buffer, or one.
  DestinationsWriter(platform::ConcurrentQueue& queue, bool hasTwoDigests, platform::ThreadNumber readingThread)
      : _queue(queue), _hasTwoDigests(hasTwoDigests), _readingThread(readingThread) {}
  // From then on the reading thread uses all processors.
  ~DestinationsWriter() { keepReadingOff(std::nullopt); }
  DestinationsWriter(const DestinationsWriter&) = delete;
  DestinationsWriter& operator=(const DestinationsWriter&) = delete;

  // Writes the bytes to all destinations and digests them, all side by side on the queue and the calling thread, and returns
  // when all is done: the bytes are then the caller's again. So few that they are not worth a thread are digested first.
  // To be called on one thread at a time, which is not the one that reads, with the same number of destinations each time.
  //   digest            called once, on any of the threads
  //   endForFailedWrite called with the position of a destination that refused the bytes and with what its write returned,
  //                     on any of the threads; does not return
  void writeToAll(std::vector<platform::OutputFile>& destinations, std::span<const std::byte> bytes,
                  const std::function<void()>& digest,
                  const std::function<void(std::size_t, int64_t)>& endForFailedWrite);

 private:
  [[nodiscard]] std::chrono::nanoseconds timeOfWrites() const;
  [[nodiscard]] std::size_t longestWork() const;
  [[nodiscard]] bool keepsWritesOffTheDigest() const;
  [[nodiscard]] bool keepsReadingOffTheDigest() const;
  void keepReadingOff(std::optional<std::size_t> processor);

  platform::ConcurrentQueue& _queue;
  const bool _hasTwoDigests;
  const platform::ThreadNumber _readingThread;
  std::optional<std::size_t> _processorNotReadOn;
  const platform::UsableProcessors _processors;
  // Of a processor, for all buffers so far: each write's by its position, then the digest's. Each is added to by the thread
  // that does the work.
  std::vector<std::chrono::nanoseconds> _processorTimes;
};
