#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "platform/ConcurrentQueue.h"
#include "platform/OutputFile.h"

// What becomes of a write that took less than it was given: the read-back or the check of sizes finds it, or nothing does and
// it has to end the run.
enum class ShortWrite { isFoundLater, isFailure };

// Takes the buffers of a copy, one after the other, to all destinations and into the digests.
class DestinationsWriter {
 public:
  // Called with the position of a destination that refused bytes and with what its write returned, on any thread; does not
  // return.
  using FailedWrite = std::function<void(std::size_t, int64_t)>;

  // The queue must outlive the writer. Meanwhile its threads do nothing else but what `digest` gives them.
  DestinationsWriter(platform::ConcurrentQueue& queue, ShortWrite shortWrite, FailedWrite endForFailedWrite)
      : _queue(queue), _shortWrite(shortWrite), _endForFailedWrite(std::move(endForFailedWrite)) {}

  // Writes the bytes to all destinations and digests them, all side by side on the queue and the calling thread, and returns
  // when all is done: the bytes are then the caller's again. So few that they are not worth a thread are digested first.
  // To be called on one thread at a time.
  //   digest   called once, on the calling thread: mostly the longest work, it does not wait for a thread to wake
  void writeToAll(std::vector<platform::OutputFile>& destinations, std::span<const std::byte> bytes,
                  const std::function<void()>& digest) const;

 private:
  void write(std::vector<platform::OutputFile>& destinations, std::size_t index,
             std::span<const std::byte> bytes) const;

  platform::ConcurrentQueue& _queue;
  const ShortWrite _shortWrite;
  const FailedWrite _endForFailedWrite;
};
