#include "KDXFileTools/kdxdispatchcopy/ExternalHash.h"

#include <cstddef>
#include <string>

#include "KDXFileTools/kdxdispatchcopy/CopySteps.h"
#include "digest/KDXDigestContext.h"

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
