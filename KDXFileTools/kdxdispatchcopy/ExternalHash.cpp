#include "KDXFileTools/kdxdispatchcopy/ExternalHash.h"

#include <algorithm>
#include <cstddef>
#include <string>

#include "digest/KDXDigestContext.h"

namespace {

// Digest texts have only ASCII letters.
std::string lowerCased(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return text;
}

}  // namespace

ExternalHash ExternalHash::fromText(std::string_view text) {
  const std::size_t colon = text.find(':');
  const bool hasTwoParts = colon != std::string_view::npos && text.find(':', colon + 1) == std::string_view::npos;
  if (!hasTwoParts || colon + 1 == text.size()) return {.form = Form::notTwoParts};
  const uint32_t algorithm = KDXDigestAlgorithmFromName(text.substr(0, colon));
  if (algorithm == KDXDigestAlgorithmNone) return {.form = Form::unknownName};
  return {.form = Form::understood, .algorithm = algorithm};
}

bool isSameHash(std::string_view externalText, std::string_view digestString) {
  return lowerCased(std::string(externalText)) == lowerCased(std::string(digestString));
}
