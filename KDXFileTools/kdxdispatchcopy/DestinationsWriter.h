#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "platform/ConcurrentQueue.h"
#include "platform/OutputFile.h"

// What a short write means: either the read-back or the size check will find it, or no later check would, and it must end
// the run.
enum class ShortWrite { isFoundLater, isFailure };

// Writes the buffers of a copy, one after the other, to all destinations, and digests them.
class DestinationsWriter {
 public:
  // Called on any thread with the position of the destination whose write failed, and with the value that the write
  // returned. Does not return.
  using FailedWrite = std::function<void(std::size_t, int64_t)>;

  // The queue must outlive the writer. Until then it runs only the writer's tasks and those that `digest` queues.
  DestinationsWriter(platform::ConcurrentQueue& queue, ShortWrite shortWrite, FailedWrite endForFailedWrite)
      : _queue(queue), _shortWrite(shortWrite), _endForFailedWrite(std::move(endForFailedWrite)) {}

  // Writes the bytes to all destinations on the queue while it digests them on the calling thread. Returns when all of this
  // is done; the bytes are then the caller's again. Up to notWorthAThread bytes are digested before they are written.
  // To be called on one thread at a time.
  //   digest   called once, on the calling thread: it is mostly the longest work, and need not wait for a thread to wake
  void writeToAll(std::vector<platform::OutputFile>& destinations, std::span<const std::byte> bytes,
                  const std::function<void()>& digest) const;

 private:
  void write(std::vector<platform::OutputFile>& destinations, std::size_t index,
             std::span<const std::byte> bytes) const;

  platform::ConcurrentQueue& _queue;
  const ShortWrite _shortWrite;
  const FailedWrite _endForFailedWrite;
};
