#pragma once

// The plain interface of the library, which is fixed at build time: digesting a small file then needs neither a provider
// look-up nor a configuration file.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

#include "digest/KDXDigestContext.h"

// MD5 as in RFC 1321; 16 bytes.
class KDXDigestContextMD5 final : public KDXDigestContext {
 public:
  [[nodiscard]] uint32_t algorithm() const override { return KDXDigestAlgorithmMD5; }
  void reset() override;
  void update(const void* bytes, uint64_t length) override;
  void finalize() override;
  [[nodiscard]] std::string digestMethodName() const override { return "MD5"; }

 private:
  MD5_CTX _context{};
};
