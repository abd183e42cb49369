#pragma once

#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

#include <condition_variable>
#include <cstddef>
#include <thread>
#include <vector>

#include "platform/Mutex.h"

// Feeds MD5 digests of several threads. As long as there is a core for each of them, each thread digests by itself with the
// library, which is the fastest for one stream. When there are more, up to eight share a core: a thread of this object digests
// the bytes of all side by side (MD5EightStreams.h) while their own threads sleep. Every digest is then a third to a half
// slower than alone, but the core does the work of four or five.
class SharedMD5 {
 public:
  // For the cores that this process may use, once for the process and never destroyed.
  static SharedMD5& shared();

  // `cores` is how many threads may digest at the same time.
  explicit SharedMD5(std::size_t cores);
  // Not while a digest is fed.
  ~SharedMD5();
  SharedMD5(const SharedMD5&) = delete;
  SharedMD5& operator=(const SharedMD5&) = delete;

  // Feeds `length` bytes to the digest, which is the caller's until the call returns: they are all digested then. Any
  // thread; one at a time for each digest.
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
  std::condition_variable _feedsToShare;                  // there may be some for a worker, or it is to end
  Feeds _unfinished KDX_GUARDED_BY(_mutex);               // with blocks left, in the order of their calls
  std::size_t _slicesToShare KDX_GUARDED_BY(_mutex) = 0;  // digested together even if there is a core for each feed
  std::size_t _busyWorkers KDX_GUARDED_BY(_mutex) = 0;    // that digest a slice at the moment
  bool _isEnding KDX_GUARDED_BY(_mutex) = false;
  // They digest what is shared and nothing else: a thread that came with bytes of its own would leave the others' to rest
  // when it is through with them, until another has woken. Started when there is something to share for the first time.
  std::vector<std::thread> _workers KDX_GUARDED_BY(_mutex);
};
