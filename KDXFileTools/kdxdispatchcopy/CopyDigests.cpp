#include "KDXFileTools/kdxdispatchcopy/CopyDigests.h"

void updateBoth(platform::ConcurrentQueue& queue, KDXDigestContext* digest, KDXDigestContext* externalDigest,
                std::span<const std::byte> bytes) {
  const auto update = [bytes](KDXDigestContext* context) {
    if (context != nullptr) context->update(bytes.data(), bytes.size());
  };
  if (digest != nullptr && externalDigest != nullptr && bytes.size() > platform::notWorthAThread) {
    queue.apply(2, [&](std::size_t index) { update(index == 0 ? externalDigest : digest); });
  } else {
    update(digest);
    update(externalDigest);
  }
}
