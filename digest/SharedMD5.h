#pragma once

#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

#include <condition_variable>
#include <cstddef>
#include <thread>
#include <vector>

#include "platform/Mutex.h"

// Feeds the MD5 digests of several threads. As long as there is a core for each thread, each digests its own bytes with the
// library, which is the fastest way for one stream. When there are more threads than cores, up to eight digests share a core:
// a thread of this object digests all of them side by side (MD5EightStreams.h) while the calling threads sleep. Each digest is
// then a third to a half slower than alone, but the core does the work of four or five.
class SharedMD5 {
 public:
  // The only one of the process, for the cores that it may use. Never destroyed.
  static SharedMD5& shared();

  // `cores` is how many threads may digest at the same time.
  explicit SharedMD5(std::size_t cores);
  // Not to be called while a digest is fed.
  ~SharedMD5();
  SharedMD5(const SharedMD5&) = delete;
  SharedMD5& operator=(const SharedMD5&) = delete;

  // Feeds `length` bytes to the digest, and returns when all of them are digested. Any thread may call it, but for each digest
  // one at a time.
  void update(MD5_CTX& digest, const void* bytes, std::size_t length);

 private:
  struct Feed;
  using Feeds = std::vector<Feed*>;

  void digestBlocks(Feed& own);
  [[nodiscard]] bool isSharing() const KDX_REQUIRES(_mutex);
  [[nodiscard]] std::size_t workersNeeded() const KDX_REQUIRES(_mutex);
  void startWorkers() KDX_REQUIRES(_mutex);
  void work();
  void countSlice() KDX_REQUIRES(_mutex);
  Feeds take() KDX_REQUIRES(_mutex);
  void giveBack(const Feeds& feeds) KDX_REQUIRES(_mutex);
  static void digestSlice(const Feeds& feeds);
  static void digestTogether(const Feeds& feeds, std::size_t blocks);

  const std::size_t _cores;
  platform::Mutex _mutex;
  std::condition_variable _feedsToShare;                  // wakes a worker: there may be feeds for it, or it must end
  Feeds _unfinished KDX_GUARDED_BY(_mutex);               // with blocks left, in the order of their calls
  std::size_t _slicesToShare KDX_GUARDED_BY(_mutex) = 0;  // to digest together even if there is a core for each feed
  std::size_t _busyWorkers KDX_GUARDED_BY(_mutex) = 0;    // are digesting a slice now
  bool _isEnding KDX_GUARDED_BY(_mutex) = false;
  // They digest only what is shared. (A calling thread in their place would stop when its own bytes are digested, and the
  // other feeds would rest until another thread has woken.) Started when feeds are shared for the first time.
  std::vector<std::thread> _workers KDX_GUARDED_BY(_mutex);
};
