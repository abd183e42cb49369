#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "digest/KDXDigestContext.h"
#include "platform/DispatchQueue.h"
#include "platform/Error.h"
#include "platform/FileURL.h"

// Receives the number of bytes read from the file so far.
using KDXVerifyProgressBlock = std::function<void(uint64_t bytesRead)>;

// Reads one existing file from start to end and digests it. It knows of no copy: the caller compares. Set up and asked by
// one thread.
class KDXDispatchVerify {
 public:
  static std::shared_ptr<KDXDispatchVerify> initWithFileURL(platform::FileURL file, uint32_t algorithm);
  virtual ~KDXDispatchVerify() = default;
  KDXDispatchVerify(const KDXDispatchVerify&) = delete;
  KDXDispatchVerify& operator=(const KDXDispatchVerify&) = delete;

  // From now on `block` is called on `queue` while a file is read, no oftener than once in more than `interval`
  // seconds; a report with the final count is not promised. The queue (a serial one) is the caller's and outlives the
  // verifier's reports, which may still be queued on it when calculateDigest returns; the block is kept for them.
  void setProgressInterval(double interval, platform::DispatchQueue* queue, KDXVerifyProgressBlock block);

  // Reads the whole file on the calling thread and returns its finalised digest; null when the algorithm is unknown.
  // Where a read fails the digest is that of what was read before. `error` is never written: a difference is for the
  // caller to see. A file that can't be opened ends the process with status 108. Not to be called on the progress queue.
  virtual std::shared_ptr<KDXDigestContext> calculateDigest(platform::ErrorPlace error);

  // True when the last file could not be read to its end: its digest proves nothing then, not even when it is the one
  // that was expected (the failure may have come behind the last byte that the caller knows of).
  [[nodiscard]] bool readFailed() const { return _readFailed; }

  // The same for any file and algorithm.
  std::shared_ptr<KDXDigestContext> verifyURL(const platform::FileURL& file, uint32_t algorithm,
                                              platform::ErrorPlace error);

  // None when the verifier is for a list.
  [[nodiscard]] const std::optional<platform::FileURL>& fileURL() const { return _fileURL; }
  [[nodiscard]] uint32_t algorithm() const { return _algorithm; }
  [[nodiscard]] const KDXVerifyProgressBlock& progressBlock() const { return _progressBlock; }
  void setProgressBlock(KDXVerifyProgressBlock block) { _progressBlock = std::move(block); }

 protected:
  KDXDispatchVerify(std::optional<platform::FileURL> file, uint32_t algorithm);

 private:
  double _progressResportingTI = 0;                        // seconds
  platform::DispatchQueue* _progressReportingQ = nullptr;  // no reports while it is none
  uint32_t _algorithm;
  std::optional<platform::FileURL> _fileURL;
  KDXVerifyProgressBlock _progressBlock;
  bool _readFailed = false;  // written on the queue of a call, read when the call has returned
};
