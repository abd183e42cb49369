#pragma once

// The plain interface of the library: it is fixed at build time, so a start that digests a small file pays for no
// provider look-up and no configuration file.
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
