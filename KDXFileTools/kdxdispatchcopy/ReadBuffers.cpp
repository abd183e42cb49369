#include "KDXFileTools/kdxdispatchcopy/ReadBuffers.h"

#include <algorithm>
#include <condition_variable>
#include <list>
#include <mutex>
#include <utility>

#include "platform/Memory.h"

namespace {

constexpr std::size_t buffersPerCall = 2;
constexpr std::size_t leastSharedBuffers = 5;
constexpr std::size_t sharedBytes = std::size_t{50} << 20;

struct IdleBuffer {
  std::size_t size;
  platform::PageAlignedMemory memory;
};

struct SharedMemory {
  std::mutex mutex;
  std::condition_variable changed;  // for calls that wait for the memory of others
  // All guarded by mutex.
  std::size_t calls = 0;         // reading calls under way
  std::size_t callsWithout = 0;  // those of them that hold no buffer at the moment
  std::size_t buffersInUse = 0;
  std::list<IdleBuffer> idle;
};

SharedMemory& shared() {
  // Never destroyed: queues may still give buffers back while the process ends.
  static auto* const memory = new SharedMemory;
  return *memory;
}

// With the lock held. Only memory of the size now asked for is kept: sizes hardly ever mix.
platform::PageAlignedMemory takeIdleOrAllocate(std::size_t size, std::size_t largestRead) {
  std::list<IdleBuffer>& idle = shared().idle;
  idle.remove_if([size](const IdleBuffer& buffer) { return buffer.size != size; });
  if (idle.empty()) return platform::allocatePages(size, largestRead);
  platform::PageAlignedMemory memory = std::move(idle.front().memory);
  idle.pop_front();
  return memory;
}

}  // namespace

std::shared_ptr<ReadBuffers> ReadBuffers::make(std::size_t bufferSize, std::size_t largestRead) {
  return std::shared_ptr<ReadBuffers>(new ReadBuffers(bufferSize, largestRead));
}

ReadBuffers::ReadBuffers(std::size_t bufferSize, std::size_t largestRead)
    : _bufferSize(bufferSize), _largestRead(largestRead) {
  const std::lock_guard lock(shared().mutex);
  ++shared().calls;
  ++shared().callsWithout;
}

ReadBuffers::~ReadBuffers() {
  const std::lock_guard lock(shared().mutex);
  --shared().calls;
  --shared().callsWithout;
  shared().changed.notify_all();
}

bool ReadBuffers::mayTakeAnother() const {
  if (_held == buffersPerCall) return false;
  const SharedMemory& memory = shared();
  const std::size_t most = std::max({leastSharedBuffers, sharedBytes / _bufferSize, memory.calls});
  // A second buffer must leave one for every call that has none.
  const std::size_t claimed = _held == 0 ? 0 : memory.callsWithout;
  return memory.buffersInUse + claimed < most;
}

std::shared_ptr<std::byte> ReadBuffers::next() {
  SharedMemory& memory = shared();
  std::unique_lock lock(memory.mutex);
  while (!mayTakeAnother()) (_held == buffersPerCall ? _givenBack : memory.changed).wait(lock);
  if (_held++ == 0) --memory.callsWithout;
  ++memory.buffersInUse;
  std::byte* const buffer = takeIdleOrAllocate(_bufferSize, _largestRead).release();
  lock.unlock();
  return {buffer, [self = shared_from_this()](std::byte* bytes) {
            SharedMemory& owner = shared();
            std::unique_lock giveBack(owner.mutex);
            owner.idle.push_back({.size = self->_bufferSize, .memory = platform::PageAlignedMemory(bytes)});
            --owner.buffersInUse;
            if (--self->_held == 0) ++owner.callsWithout;
            // Without the lock, which whoever is woken takes first.
            giveBack.unlock();
            self->_givenBack.notify_one();
            owner.changed.notify_all();
          }};
}
