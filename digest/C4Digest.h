#pragma once

// See KDXDigestContextSHA1.h.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/sha.h>

#include <string>
#include <string_view>

// Names the bytes of a file: "c4", and their SHA-512 as one big-endian number in base 58, 90 letters and digits together. Manifests
// are named so in the file that lists them. Used by one thread.
class C4Digest {
 public:
  C4Digest();

  void update(std::string_view bytes);
  // Ends the digest. Once; nothing is fed afterwards.
  std::string finalize();

  static std::string of(std::string_view bytes);
  // True for texts that a digest can have.
  static bool isC4(std::string_view text);

 private:
  SHA512_CTX _context{};
};
