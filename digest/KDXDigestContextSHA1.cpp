#include "digest/KDXDigestContextSHA1.h"

#include <array>

void KDXDigestContextSHA1::reset() {
  SHA1_Init(&_context);
}

void KDXDigestContextSHA1::update(const void* bytes, uint64_t length) {
  SHA1_Update(&_context, bytes, length);
  _totalLength += length;
}

void KDXDigestContextSHA1::finalize() {
  std::array<uint8_t, SHA_DIGEST_LENGTH> digest{};
  SHA1_Final(digest.data(), &_context);
  storeResult(digest);
}
