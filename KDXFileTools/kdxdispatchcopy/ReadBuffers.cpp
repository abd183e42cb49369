#include "KDXFileTools/kdxdispatchcopy/ReadBuffers.h"

#include <algorithm>
#include <condition_variable>
#include <list>
#include <utility>

#include "platform/Memory.h"
#include "platform/Mutex.h"

namespace {

constexpr std::size_t buffersPerCall = 2;
constexpr std::size_t leastSharedBuffers = 5;
constexpr std::size_t sharedBytes = std::size_t{50} << 20;

struct IdleBuffer {
  std::size_t size;
  platform::PageAlignedMemory memory;
};

struct SharedMemory {
  platform::Mutex mutex;
  std::condition_variable changed;                     // for calls that wait for memory of other calls
  std::size_t calls KDX_GUARDED_BY(mutex) = 0;         // reading calls under way
  std::size_t callsWithout KDX_GUARDED_BY(mutex) = 0;  // reading calls that hold no buffer at the moment
  std::size_t buffersInUse KDX_GUARDED_BY(mutex) = 0;
  std::list<IdleBuffer> idle KDX_GUARDED_BY(mutex);
};

SharedMemory& shared() {
  // Never destroyed: queues may still give buffers back while the process ends.
  static auto* const memory = new SharedMemory;
  return *memory;
}

// Idle memory of other sizes is freed, because sizes hardly ever mix.
platform::PageAlignedMemory takeIdleOrAllocate(SharedMemory& shared, std::size_t size, std::size_t largestRead)
    KDX_REQUIRES(shared.mutex) {
  std::list<IdleBuffer>& idle = shared.idle;
  idle.remove_if([size](const IdleBuffer& buffer) { return buffer.size != size; });
  if (idle.empty()) return platform::allocatePages(size, largestRead);
  platform::PageAlignedMemory memory = std::move(idle.front().memory);
  idle.pop_front();
  return memory;
}

// Whether a call that holds `held` buffers of this size may take another one.
bool mayTakeAnother(const SharedMemory& shared, std::size_t held, std::size_t size) KDX_REQUIRES(shared.mutex) {
  if (held == buffersPerCall) return false;
  const std::size_t most = std::max({leastSharedBuffers, sharedBytes / size, shared.calls});
  // A second buffer must leave one for every call that has none.
  const std::size_t claimed = held == 0 ? 0 : shared.callsWithout;
  return shared.buffersInUse + claimed < most;
}

}  // namespace

std::shared_ptr<ReadBuffers> ReadBuffers::make(std::size_t bufferSize, std::size_t largestRead) {
  return std::shared_ptr<ReadBuffers>(new ReadBuffers(bufferSize, largestRead));
}

ReadBuffers::ReadBuffers(std::size_t bufferSize, std::size_t largestRead)
    : _bufferSize(bufferSize), _largestRead(largestRead) {
  SharedMemory& memory = shared();
  const platform::MutexLock lock(memory.mutex);
  ++memory.calls;
  ++memory.callsWithout;
}

ReadBuffers::~ReadBuffers() {
  SharedMemory& memory = shared();
  const platform::MutexLock lock(memory.mutex);
  --memory.calls;
  --memory.callsWithout;
  memory.changed.notify_all();
}

std::shared_ptr<std::byte> ReadBuffers::next() {
  SharedMemory& memory = shared();
  platform::MutexLock lock(memory.mutex);
  while (!mayTakeAnother(memory, _held, _bufferSize)) lock.wait(_held == buffersPerCall ? _givenBack : memory.changed);
  if (_held++ == 0) --memory.callsWithout;
  ++memory.buffersInUse;
  std::byte* const buffer = takeIdleOrAllocate(memory, _bufferSize, _largestRead).release();
  lock.unlock();
  return {buffer, [self = shared_from_this()](std::byte* bytes) {
            SharedMemory& owner = shared();
            platform::MutexLock giveBack(owner.mutex);
            owner.idle.push_back({.size = self->_bufferSize, .memory = platform::PageAlignedMemory(bytes)});
            --owner.buffersInUse;
            if (--self->_held == 0) ++owner.callsWithout;
            // Unlocked first, because a woken thread takes the lock.
            giveBack.unlock();
            self->_givenBack.notify_one();
            owner.changed.notify_all();
          }};
}
