#include "digest/SharedMD5.h"

#include <algorithm>
#include <cstdint>
#include <system_error>

#include "digest/MD5EightStreams.h"
#include "platform/Processors.h"
#include "platform/WorkerThreads.h"

namespace {

constexpr std::size_t blockSize = MD5_CBLOCK;
// Digested before a thread looks for other feeds, in some 0.07 ms. A new feed may have to wait that long.
constexpr std::size_t blocksOfSlice = 512;
// For how many slices, some 40 ms, threads go on sharing although there is a core for each: the absent thread is still
// reading its next bytes, and reads faster if it finds a free core.
constexpr std::size_t slicesToGoOnSharing = 512;

// Null if this processor can't digest several streams at once.
MD5EightStreams* eightStreams() {
  static MD5EightStreams* const fastest = md5EightStreamsOfThisProcessor().fastest();
  return fastest;
}

}  // namespace

// The whole blocks of one call.
struct SharedMD5::Feed {
  MD5_CTX& digest;
  const std::byte* next;              // changed by the thread that has taken the feed
  std::size_t blocks;                 // not digested yet; changed by the same thread
  bool isTaken = false;               // a thread is digesting a slice of it; guarded by _mutex
  std::condition_variable changed{};  // wakes the calling thread: the feed has ended, or is no longer shared
};

namespace {

void countBytes(MD5_CTX& digest, uint64_t bytes) {
  const uint64_t bits = (uint64_t{digest.Nh} << 32 | digest.Nl) + 8 * bytes;
  digest.Nl = static_cast<MD5_LONG>(bits);
  digest.Nh = static_cast<MD5_LONG>(bits >> 32);
}

}  // namespace

SharedMD5& SharedMD5::shared() {
  // Never destroyed: queues may still digest while the process ends.
  static auto* const md5 = new SharedMD5(platform::usableProcessors());
  return *md5;
}

SharedMD5::SharedMD5(std::size_t cores) : _cores(cores) {}

SharedMD5::~SharedMD5() {
  std::vector<std::thread> workers;
  {
    const platform::MutexLock lock(_mutex);
    _isEnding = true;
    workers = std::move(_workers);
  }
  _feedsToShare.notify_all();
  for (std::thread& worker : workers) worker.join();
}

void SharedMD5::update(MD5_CTX& digest, const void* bytes, std::size_t length) {
  if (length < platform::notWorthAThread || eightStreams() == nullptr) {
    MD5_Update(&digest, bytes, length);
    return;
  }
  const auto* const start = static_cast<const std::byte*>(bytes);
  const std::size_t head = (blockSize - digest.num) % blockSize;
  MD5_Update(&digest, start, head);
  Feed feed{.digest = digest, .next = start + head, .blocks = (length - head) / blockSize};
  digestBlocks(feed);
  const std::size_t tail = (length - head) % blockSize;
  MD5_Update(&digest, start + length - tail, tail);
}

void SharedMD5::digestBlocks(Feed& own) {
  platform::MutexLock lock(_mutex);
  _unfinished.push_back(&own);
  if (_unfinished.size() > _cores) {
    _slicesToShare = slicesToGoOnSharing;
    startWorkers();
  }
  while (own.isTaken || own.blocks > 0) {
    if (isSharing()) _feedsToShare.notify_one();
    if (own.isTaken || isSharing()) {
      lock.wait(own.changed);
      continue;
    }
    const Feeds alone{&own};
    own.isTaken = true;
    lock.unlock();
    digestSlice(alone);
    lock.lock();
    giveBack(alone);
  }
}

bool SharedMD5::isSharing() const {
  return !_workers.empty() && (_unfinished.size() > _cores || _slicesToShare > 0);
}

std::size_t SharedMD5::workersNeeded() const {
  return std::min(_cores, (_unfinished.size() + streamsOfMD5EightStreams - 1) / streamsOfMD5EightStreams);
}

// If no thread can be started, each calling thread goes on digesting its own feed.
void SharedMD5::startWorkers() {
  try {
    while (_workers.size() < workersNeeded()) _workers.emplace_back([this] { work(); });
  } catch (const std::system_error&) {
    return;
  }
}

void SharedMD5::work() {
  platform::MutexLock lock(_mutex);
  while (!_isEnding) {
    const Feeds feeds = isSharing() && _busyWorkers < workersNeeded() ? take() : Feeds();
    if (feeds.empty()) {
      lock.wait(_feedsToShare);
      continue;
    }
    countSlice();
    ++_busyWorkers;
    lock.unlock();
    digestSlice(feeds);
    lock.lock();
    --_busyWorkers;
    giveBack(feeds);
  }
}

void SharedMD5::countSlice() {
  if (_unfinished.size() > _cores) {
    _slicesToShare = slicesToGoOnSharing;
  } else if (--_slicesToShare == 0) {
    for (Feed* feed : _unfinished) feed->changed.notify_one();
  }
}

// Takes the feeds that one worker digests next: its share of all.
SharedMD5::Feeds SharedMD5::take() {
  const std::size_t workers = std::min(_workers.size(), workersNeeded());
  const std::size_t share = (_unfinished.size() + workers - 1) / workers;
  const std::size_t most = std::min(share, streamsOfMD5EightStreams);
  Feeds feeds;
  for (Feed* feed : _unfinished) {
    if (feeds.size() < most && !feed->isTaken) feeds.push_back(feed);
  }
  for (Feed* feed : feeds) feed->isTaken = true;
  return feeds;
}

void SharedMD5::giveBack(const Feeds& feeds) {
  for (Feed* feed : feeds) {
    feed->isTaken = false;
    if (feed->blocks == 0) std::erase(_unfinished, feed);
    if (feed->blocks == 0 || !isSharing()) feed->changed.notify_one();
  }
}

void SharedMD5::digestSlice(const Feeds& feeds) {
  std::size_t blocks = blocksOfSlice;
  for (const Feed* feed : feeds) blocks = std::min(blocks, feed->blocks);
  const std::size_t bytes = blocks * blockSize;
  if (feeds.size() == 1) {
    MD5_Update(&feeds.front()->digest, feeds.front()->next, bytes);
  } else {
    digestTogether(feeds, blocks);
  }
  for (Feed* feed : feeds) {
    feed->next += bytes;
    feed->blocks -= blocks;
  }
}

void SharedMD5::digestTogether(const Feeds& feeds, std::size_t blocks) {
  MD5EightStates states{};
  const std::byte* data[streamsOfMD5EightStreams];
  // Lanes that are left over digest the first stream again, and the result is not used.
  std::ranges::fill(data, feeds.front()->next);
  for (std::size_t lane = 0; lane < feeds.size(); ++lane) {
    const MD5_CTX& digest = feeds[lane]->digest;
    data[lane] = feeds[lane]->next;
    states[0][lane] = digest.A;
    states[1][lane] = digest.B;
    states[2][lane] = digest.C;
    states[3][lane] = digest.D;
  }
  eightStreams()(states, data, blocks);
  for (std::size_t lane = 0; lane < feeds.size(); ++lane) {
    MD5_CTX& digest = feeds[lane]->digest;
    digest.A = states[0][lane];
    digest.B = states[1][lane];
    digest.C = states[2][lane];
    digest.D = states[3][lane];
    countBytes(digest, blocks * blockSize);
  }
}
