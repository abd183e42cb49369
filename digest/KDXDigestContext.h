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

// Codes of the digest algorithms. Distinct bits, but always used one at a time.
inline constexpr uint32_t KDXDigestAlgorithmNone = 0;
inline constexpr uint32_t KDXDigestAlgorithmSHA1 = 1;
inline constexpr uint32_t KDXDigestAlgorithmMD5 = 2;
inline constexpr uint32_t KDXDigestAlgorithmXXHash64 = 8;     // least significant byte first
inline constexpr uint32_t KDXDigestAlgorithmXXHash64BE = 16;  // most significant byte first

// "MD5", "SHA1", "XXHash64BE" and "XXHash64", spelt exactly, give their codes; anything else gives 0.
uint32_t KDXDigestAlgorithmFromName(std::string_view name);

// Computes the digest of a stream of bytes: fed with bytes, finalised once, then compared and printed. The base class
// holds the result and knows its text forms; each algorithm is a subclass. Used by one thread at a time.
class KDXDigestContext {
 public:
  // A new, reset context; null for an unknown code.
  static std::shared_ptr<KDXDigestContext> contextWithAlgorithm(uint32_t algorithm);

  virtual ~KDXDigestContext() = default;
  KDXDigestContext(const KDXDigestContext&) = delete;
  KDXDigestContext& operator=(const KDXDigestContext&) = delete;

  // Feeds the UTF-8 bytes of the text (nothing without one) and finalises.
  void updateAndFinalizeFromString(const std::optional<std::string>& text);

  // Makes the context ready for its first digest; contextWithAlgorithm has done so.
  void initContext() { reset(); }

  [[nodiscard]] virtual uint32_t algorithm() const { return KDXDigestAlgorithmNone; }

  // Starts a new digest. The results so far stay until the next finalize, and totalLength counts on: it is the number of
  // bytes that the context was ever fed.
  virtual void reset() {}

  // Feeds `length` bytes; they are read before the call returns. The base class has no algorithm and counts nothing.
  virtual void update(const void* bytes, uint64_t length);

  // Ends the digest and stores its result. Once for each digest; nothing is fed afterwards without a reset.
  virtual void finalize() {}

  // The prefixed text: method name, ":", bare hex text ("(null)" before finalize).
  [[nodiscard]] std::string digestString() const;

  // The bare hex text, lower case; none before finalize.
  [[nodiscard]] const std::optional<std::string>& rawDigestString() const { return _digestString; }

  // True when the other is there and its prefixed text is exactly this one's: digests of different algorithms never agree.
  [[nodiscard]] bool isEqual(const KDXDigestContext* other) const;

  [[nodiscard]] std::string hexStringFromData(std::span<const uint8_t> data) const;

  [[nodiscard]] virtual std::string digestMethodName() const;

  [[nodiscard]] uint64_t totalLength() const { return _totalLength; }

  // The digest's bytes, in the order of the hex text; none before finalize.
  [[nodiscard]] const std::optional<std::vector<uint8_t>>& digest() const { return _digest; }
  void setDigest(std::optional<std::vector<uint8_t>> digest) { _digest = std::move(digest); }

 protected:
  KDXDigestContext() = default;

  // For the subclasses' finalize: keeps the digest's bytes and their hex text.
  void storeResult(std::span<const uint8_t> digest);

  uint64_t _totalLength = 0;

 private:
  std::optional<std::string> _digestString;
  std::optional<std::vector<uint8_t>> _digest;
};
