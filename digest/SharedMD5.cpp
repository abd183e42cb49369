#include "digest/SharedMD5.h"

#include <algorithm>
#include <cstdint>
#include <thread>

#include "digest/MD5EightStreams.h"

namespace {

constexpr std::size_t blockSize = MD5_CBLOCK;
// What is digested between two looks at what else has to be: half a millisecond.
constexpr std::size_t blocksOfSlice = 4096;
// For how many slices, some 40 ms, threads go on sharing when there would be a core for each: who is missing reads its next
// bytes, which it does the sooner if it finds a core free.
constexpr std::size_t slicesToGoOnSharing = 64;

}  // namespace

// The whole blocks of one call.
struct SharedMD5::Feed {
  MD5_CTX& digest;
  const std::byte* next;  // changed by the thread that has taken the feed
  std::size_t blocks;     // not digested yet; likewise
  bool isTaken = false;   // some thread digests a slice of it; guarded by _mutex
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
  static auto* const md5 = new SharedMD5(std::max(1U, std::thread::hardware_concurrency()));
  return *md5;
}

SharedMD5::SharedMD5(std::size_t cores) : _cores(cores) {}

void SharedMD5::update(MD5_CTX& digest, const void* bytes, std::size_t length) {
  static const bool canShare = canDigestMD5EightStreams();
  if (!canShare || length < smallestShared) {
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
  std::unique_lock lock(_mutex);
  _unfinished.push_back(&own);
  while (own.isTaken || own.blocks > 0) {
    if (own.isTaken || _workers >= workersNeeded()) {
      _changed.wait(lock);
      continue;
    }
    if (_unfinished.size() > _cores) {
      _slicesToShare = slicesToGoOnSharing;
    } else if (_slicesToShare > 0 && --_slicesToShare == 0) {
      _changed.notify_all();
    }
    const Feeds feeds = take(own);
    ++_workers;
    lock.unlock();
    digestSlice(feeds);
    lock.lock();
    --_workers;
    giveBack(feeds);
  }
}

std::size_t SharedMD5::workersNeeded() const {
  const std::size_t feeds = _unfinished.size();
  if (feeds <= _cores && _slicesToShare == 0) return feeds;
  return std::min(_cores, (feeds + streamsOfMD5EightStreams - 1) / streamsOfMD5EightStreams);
}

// The feeds that one thread digests next, its own among them.
SharedMD5::Feeds SharedMD5::take(Feed& own) {
  Feeds feeds{&own};
  const std::size_t workers = workersNeeded();
  const std::size_t share = (_unfinished.size() + workers - 1) / workers;
  const std::size_t most = std::min(share, streamsOfMD5EightStreams);
  for (Feed* feed : _unfinished) {
    if (feeds.size() < most && feed != &own && !feed->isTaken) feeds.push_back(feed);
  }
  for (Feed* feed : feeds) feed->isTaken = true;
  return feeds;
}

void SharedMD5::giveBack(const Feeds& feeds) {
  for (Feed* feed : feeds) feed->isTaken = false;
  const std::size_t ended =
      std::erase_if(_unfinished, [](const Feed* feed) { return !feed->isTaken && feed->blocks == 0; });
  if (ended > 0) _changed.notify_all();
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
  // Lanes that are left over digest the first stream once more, for nobody.
  std::ranges::fill(data, feeds.front()->next);
  for (std::size_t lane = 0; lane < feeds.size(); ++lane) {
    const MD5_CTX& digest = feeds[lane]->digest;
    data[lane] = feeds[lane]->next;
    states[0][lane] = digest.A;
    states[1][lane] = digest.B;
    states[2][lane] = digest.C;
    states[3][lane] = digest.D;
  }
  md5EightStreams(states, data, blocks);
  for (std::size_t lane = 0; lane < feeds.size(); ++lane) {
    MD5_CTX& digest = feeds[lane]->digest;
    digest.A = states[0][lane];
    digest.B = states[1][lane];
    digest.C = states[2][lane];
    digest.D = states[3][lane];
    countBytes(digest, blocks * blockSize);
  }
}
