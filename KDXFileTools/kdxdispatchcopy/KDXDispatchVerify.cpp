#include "KDXFileTools/kdxdispatchcopy/KDXDispatchVerify.h"

#include <utility>

#include "KDXFileTools/kdxdispatchcopy/KDXReadFile.h"
#include "KDXFileTools/kdxdispatchcopy/ProgressClock.h"
#include "platform/DispatchGroup.h"
#include "platform/SerialQueue.h"

KDXDispatchVerify::KDXDispatchVerify(std::optional<platform::FileURL> file, uint32_t algorithm)
    : _algorithm(algorithm), _fileURL(std::move(file)) {}

std::shared_ptr<KDXDispatchVerify> KDXDispatchVerify::initWithFileURL(platform::FileURL file, uint32_t algorithm) {
  return std::shared_ptr<KDXDispatchVerify>(new KDXDispatchVerify(std::move(file), algorithm));
}

void KDXDispatchVerify::setProgressInterval(double interval, platform::DispatchQueue* queue,
                                            KDXVerifyProgressBlock block) {
  _progressReportingQ = queue;
  _progressResportingTI = interval;
  _progressBlock = std::move(block);
}

std::shared_ptr<KDXDigestContext> KDXDispatchVerify::calculateDigest(platform::ErrorPlace error) {
  return _fileURL ? verifyURL(*_fileURL, _algorithm, error) : nullptr;
}

std::shared_ptr<KDXDigestContext> KDXDispatchVerify::verifyURL(const platform::FileURL& file, uint32_t algorithm,
                                                               platform::ErrorPlace /*error*/) {
  std::shared_ptr<KDXDigestContext> context = KDXDigestContext::contextWithAlgorithm(algorithm);
  // Reports may run after this call has returned, so they own what they use.
  const auto report = [clock = std::make_shared<ProgressClock>(_progressResportingTI),
                       block = _progressBlock](uint64_t bytesRead) {
    if (block && clock->isDue()) block(bytesRead);
  };
  platform::DispatchGroup done;
  done.enter();
  _readFailed = false;
  uint64_t bytesRead = 0;
  platform::SerialQueue verifyQueue("verify");
  KDXReadFile(file.path(), verifyQueue, [&](bool isLast, const std::byte* bytes, int64_t length, int32_t) {
    // A failed read has a length of -1 and no bytes.
    if (length < 0) _readFailed = true;
    const uint64_t count = length < 0 ? 0 : static_cast<uint64_t>(length);
    if (context) context->update(bytes, count);
    bytesRead += count;
    if (_progressReportingQ != nullptr) _progressReportingQ->async([report, bytesRead] { report(bytesRead); });
    if (isLast) done.leave();
  });
  if (_progressReportingQ != nullptr) _progressReportingQ->barrierSync([] {});
  done.wait();
  if (context) context->finalize();
  return context;
}
