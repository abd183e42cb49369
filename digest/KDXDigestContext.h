#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Codes of the digest algorithms. Distinct bits, but never combined.
inline constexpr uint32_t KDXDigestAlgorithmNone = 0;
inline constexpr uint32_t KDXDigestAlgorithmSHA1 = 1;
inline constexpr uint32_t KDXDigestAlgorithmMD5 = 2;
inline constexpr uint32_t KDXDigestAlgorithmXXHash64 = 8;     // least significant byte first
inline constexpr uint32_t KDXDigestAlgorithmXXHash64BE = 16;  // most significant byte first

// The code for "MD5", "SHA1", "XXHash64BE" or "XXHash64", spelt exactly so; 0 for anything else.
uint32_t KDXDigestAlgorithmFromName(std::string_view name);

// Computes the digest of a stream of bytes: it is fed with bytes, finalised once, then compared and printed. The base class
// holds the result and knows its text forms; each algorithm is a subclass. Used by one thread at a time.
class KDXDigestContext {
 public:
  // A new, reset context; null for an unknown code.
  static std::shared_ptr<KDXDigestContext> contextWithAlgorithm(uint32_t algorithm);

  virtual ~KDXDigestContext() = default;
  KDXDigestContext(const KDXDigestContext&) = delete;
  KDXDigestContext& operator=(const KDXDigestContext&) = delete;

  // Feeds the UTF-8 bytes of the text, if there is one, and finalises.
  void updateAndFinalizeFromString(const std::optional<std::string>& text);

  // Prepares the context for its first digest. contextWithAlgorithm calls it.
  void initContext() { reset(); }

  [[nodiscard]] virtual uint32_t algorithm() const { return KDXDigestAlgorithmNone; }

  // Starts a new digest. Earlier results stay until the next finalize. totalLength is not reset: it counts all bytes that the
  // context was ever fed.
  virtual void reset() {}

  // Feeds `length` bytes, all of which are read before the call returns. The base class has no algorithm and counts nothing.
  virtual void update(const void* bytes, uint64_t length);

  // Ends the digest and stores its result. To be called once for each digest; call reset before you feed anything again.
  virtual void finalize() {}

  // The prefixed text: method name, ":", and the bare hex text, which is "(null)" before finalize.
  [[nodiscard]] std::string digestString() const;

  // The bare hex text, lower case; none before finalize.
  [[nodiscard]] const std::optional<std::string>& rawDigestString() const { return _digestString; }

  // True when `other` is not null and has exactly the same prefixed text. So digests of different algorithms are never equal.
  [[nodiscard]] bool isEqual(const KDXDigestContext* other) const;

  [[nodiscard]] std::string hexStringFromData(std::span<const uint8_t> data) const;

  [[nodiscard]] virtual std::string digestMethodName() const;

  [[nodiscard]] uint64_t totalLength() const { return _totalLength; }

  // The digest's bytes, in the order of the hex text; none before finalize.
  [[nodiscard]] const std::optional<std::vector<uint8_t>>& digest() const { return _digest; }
  void setDigest(std::optional<std::vector<uint8_t>> digest) { _digest = std::move(digest); }

 protected:
  KDXDigestContext() = default;

  // For finalize of the subclasses: keeps the bytes of the digest and their hex text.
  void storeResult(std::span<const uint8_t> digest);

  uint64_t _totalLength = 0;

 private:
  std::optional<std::string> _digestString;
  std::optional<std::vector<uint8_t>> _digest;
};
