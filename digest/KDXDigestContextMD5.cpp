#include "digest/KDXDigestContextMD5.h"

#include <array>

#include "digest/SharedMD5.h"
#include "platform/WorkerThreads.h"

void KDXDigestContextMD5::reset() {
  MD5_Init(&_context);
}

void KDXDigestContextMD5::update(const void* bytes, uint64_t length) {
  if (length < platform::notWorthAThread) {
    MD5_Update(&_context, bytes, length);
  } else {
    SharedMD5::shared().update(_context, bytes, length);
  }
  _totalLength += length;
}

void KDXDigestContextMD5::finalize() {
  std::array<uint8_t, MD5_DIGEST_LENGTH> digest{};
  MD5_Final(digest.data(), &_context);
  storeResult(digest);
}
