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

// Reads one existing file from start to end and digests it. The caller compares the digests. Used by one thread.
class KDXDispatchVerify {
 public:
  static std::shared_ptr<KDXDispatchVerify> initWithFileURL(platform::FileURL file, uint32_t algorithm);
  virtual ~KDXDispatchVerify() = default;
  KDXDispatchVerify(const KDXDispatchVerify&) = delete;
  KDXDispatchVerify& operator=(const KDXDispatchVerify&) = delete;

  // From now on `block` is called on `queue` while a file is read, at intervals longer than `interval` seconds. The final
  // count may not be reported. The queue is serial, belongs to the caller, and must outlive the reports: some may still be
  // queued on it when calculateDigest returns. They keep a copy of the block.
  void setProgressInterval(double interval, platform::DispatchQueue* queue, KDXVerifyProgressBlock block);

  // Reads the whole file on the calling thread and returns its finalised digest; null when the algorithm is unknown.
  // If a read fails, the digest is that of the bytes read until then. `error` is never written: the caller compares the
  // digests. A file that can't be opened ends the process with status 108. Not to be called on the progress queue.
  virtual std::shared_ptr<KDXDigestContext> calculateDigest(platform::ErrorPlace error);

  // True when the last file could not be read to its end. Its digest then proves nothing, even if it is the expected one:
  // the read may have failed after the last byte that the caller knows of.
  [[nodiscard]] bool readFailed() const { return _readFailed; }

  // The same for any file and algorithm.
  std::shared_ptr<KDXDigestContext> verifyURL(const platform::FileURL& file, uint32_t algorithm,
                                              platform::ErrorPlace error);

  // None when the verifier reads a list.
  [[nodiscard]] const std::optional<platform::FileURL>& fileURL() const { return _fileURL; }
  [[nodiscard]] uint32_t algorithm() const { return _algorithm; }
  [[nodiscard]] const KDXVerifyProgressBlock& progressBlock() const { return _progressBlock; }
  void setProgressBlock(KDXVerifyProgressBlock block) { _progressBlock = std::move(block); }

 protected:
  KDXDispatchVerify(std::optional<platform::FileURL> file, uint32_t algorithm);

 private:
  double _progressResportingTI = 0;                        // seconds
  platform::DispatchQueue* _progressReportingQ = nullptr;  // null: nothing is reported
  uint32_t _algorithm;
  std::optional<platform::FileURL> _fileURL;
  KDXVerifyProgressBlock _progressBlock;
  bool _readFailed = false;  // written on the queue of a reading call, read after the call has returned
};
