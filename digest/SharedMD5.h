#pragma once

#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

// Feeds MD5 digests of several threads. As long as there is a core for each of them, each thread digests by itself with the
// library, which is the fastest for one stream. When there are more, up to eight share a core: one of the threads digests the
// bytes of all side by side (MD5EightStreams.h) while the others sleep. Every digest is then a third slower than alone, but
// the core does the work of five.
class SharedMD5 {
 public:
  // Shorter feeds are over before another thread could take them up: they go to the library at once.
  static constexpr std::size_t smallestShared = std::size_t{64} << 10;

  // For the cores that this process may use, once for the process and never destroyed.
  static SharedMD5& shared();

  // `cores` is how many threads may digest at the same time.
  explicit SharedMD5(std::size_t cores);
  SharedMD5(const SharedMD5&) = delete;
  SharedMD5& operator=(const SharedMD5&) = delete;

  // Feeds `length` bytes to the digest, which is the caller's until the call returns: they are all digested then. Any
  // thread; one at a time for each digest.
  void update(MD5_CTX& digest, const void* bytes, std::size_t length);

 private:
  struct Feed;
  using Feeds = std::vector<Feed*>;

  void digestBlocks(Feed& own);
  [[nodiscard]] std::size_t workersNeeded() const;
  Feeds take(Feed& own);
  void giveBack(const Feeds& feeds);
  static void digestSlice(const Feeds& feeds);
  static void digestTogether(const Feeds& feeds, std::size_t blocks);

  const std::size_t _cores;
  std::mutex _mutex;
  std::condition_variable _changed;  // feeds have ended, or there is a core for each again
  Feeds _unfinished;                 // with blocks left, in the order of their calls; guarded by _mutex
  std::size_t _workers = 0;          // threads that digest at the moment; guarded by _mutex
  std::size_t _slicesToShare = 0;    // digested together even if there is a core for each feed; guarded by _mutex
};
