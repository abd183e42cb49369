#include "KDXFileTools/kdxdispatchcopy/KDXSequenceVerify.h"

#include <string>
#include <utility>

#include "KDXFileTools/kdxdispatchcopy/KDXReadFile.h"
#include "platform/SerialQueue.h"

KDXSequenceVerify::KDXSequenceVerify(std::vector<platform::FileURL> files, uint32_t algorithm)
    : KDXDispatchVerify(std::nullopt, algorithm), _fileURLs(std::move(files)) {}

std::shared_ptr<KDXSequenceVerify> KDXSequenceVerify::initWithFileURLs(std::vector<platform::FileURL> files,
                                                                       uint32_t algorithm) {
  return std::shared_ptr<KDXSequenceVerify>(new KDXSequenceVerify(std::move(files), algorithm));
}

std::shared_ptr<KDXDigestContext> KDXSequenceVerify::calculateDigest(platform::ErrorPlace /*error*/) {
  std::shared_ptr<KDXDigestContext> sequence = KDXDigestContext::contextWithAlgorithm(algorithm());
  platform::SerialQueue verifyQueue("verify");
  std::string joined;
  std::shared_ptr<KDXDigestContext> file;
  // Returns when every callback has returned.
  KDXReadFiles(
      _fileURLs, verifyQueue,
      [&](const platform::FileURL&) {
        file = KDXDigestContext::contextWithAlgorithm(algorithm());
        return true;
      },
      [&](bool isLast, const std::byte* bytes, int64_t length, int32_t) {
        if (!file) return;
        file->update(bytes, length < 0 ? 0 : static_cast<uint64_t>(length));
        if (!isLast) return;
        file->finalize();
        joined += file->rawDigestString().value();
      });
  if (sequence) sequence->updateAndFinalizeFromString(joined);
  return sequence;
}
