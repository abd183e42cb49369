#pragma once

#include <cstddef>
#include <span>

#include "digest/KDXDigestContext.h"
#include "platform/ConcurrentQueue.h"

// Feeds the bytes to both digests of a copy at the same time, one on the queue and one on the calling thread, and returns
// when both have them. Either may be null. Up to notWorthAThread bytes are fed on the calling thread alone.
void updateBoth(platform::ConcurrentQueue& queue, KDXDigestContext* digest, KDXDigestContext* externalDigest,
                std::span<const std::byte> bytes);
