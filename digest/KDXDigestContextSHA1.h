#pragma once

// The plain interface of the library, which is fixed at build time: digesting a small file then needs neither a provider
// look-up nor a configuration file.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/sha.h>

#include "digest/KDXDigestContext.h"

// SHA1 as in RFC 3174; 20 bytes.
class KDXDigestContextSHA1 final : public KDXDigestContext {
 public:
  [[nodiscard]] uint32_t algorithm() const override { return KDXDigestAlgorithmSHA1; }
  void reset() override;
  void update(const void* bytes, uint64_t length) override;
  void finalize() override;
  [[nodiscard]] std::string digestMethodName() const override { return "SHA1"; }

 private:
  SHA_CTX _context{};
};
