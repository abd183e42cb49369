#include "digest/KDXDigestContext.h"

#include <fmt/format.h>

#include <array>

#include "digest/DigestStrings.h"
#include "digest/KDXDigestContextMD5.h"
#include "digest/KDXDigestContextSHA1.h"
#include "digest/KDXDigestContextXX64BE.h"
#include "digest/KDXDigestContextXX64LE.h"

namespace {

struct Method {
  std::string_view name;
  uint32_t algorithm;
};

constexpr std::array methods{Method{"MD5", KDXDigestAlgorithmMD5}, Method{"SHA1", KDXDigestAlgorithmSHA1},
                             Method{"XXHash64BE", KDXDigestAlgorithmXXHash64BE},
                             Method{"XXHash64", KDXDigestAlgorithmXXHash64}};

template <typename Context>
std::shared_ptr<KDXDigestContext> makeContext() {
  auto context = std::make_shared<Context>();
  context->initContext();
  return context;
}

}  // namespace

uint32_t KDXDigestAlgorithmFromName(std::string_view name) {
  for (const Method& method : methods) {
    if (method.name == name) return method.algorithm;
  }
  return KDXDigestAlgorithmNone;
}

std::shared_ptr<KDXDigestContext> KDXDigestContext::contextWithAlgorithm(uint32_t algorithm) {
  switch (algorithm) {
    case KDXDigestAlgorithmSHA1:
      return makeContext<KDXDigestContextSHA1>();
    case KDXDigestAlgorithmMD5:
      return makeContext<KDXDigestContextMD5>();
    case KDXDigestAlgorithmXXHash64:
      return makeContext<KDXDigestContextXX64LE>();
    case KDXDigestAlgorithmXXHash64BE:
      return makeContext<KDXDigestContextXX64BE>();
    default:
      return nullptr;
  }
}

void KDXDigestContext::updateAndFinalizeFromString(const std::optional<std::string>& text) {
  if (text) update(text->data(), text->size());
  finalize();
}

void KDXDigestContext::update(const void* /*bytes*/, uint64_t /*length*/) {}

std::string KDXDigestContext::digestMethodName() const {
  for (const Method& method : methods) {
    if (method.algorithm == algorithm()) return std::string(method.name);
  }
  return "";
}

std::string KDXDigestContext::digestString() const {
  return fmt::format("{}:{}", digestMethodName(), _digestString.value_or("(null)"));
}

bool KDXDigestContext::isEqual(const KDXDigestContext* other) const {
  return other != nullptr && other->digestString() == digestString();
}

std::string KDXDigestContext::hexStringFromData(std::span<const uint8_t> data) const {
  return hexstringWithBytes(data);
}

void KDXDigestContext::storeResult(std::span<const uint8_t> digest) {
  setDigest(std::vector<uint8_t>(digest.begin(), digest.end()));
  _digestString = hexStringFromData(digest);
}
