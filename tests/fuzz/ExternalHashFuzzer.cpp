// The text of a digest from elsewhere, compared with the copy of three bytes. The first line of the input is the algorithm of
// the copy: one of the codes 0, 1, 2, 8 and 16.

#include <strings.h>

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <string>

#include "Fuzz.h"
#include "KDXFileTools/kdxdispatchcopy/ExternalHash.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"

namespace {

struct Known {
  const char* name;
  uint32_t algorithm;
  const char* hexOfCopied;
};

constexpr std::string_view copied = "abc";

// From the published vectors and xxhsum.
constexpr std::array known{Known{"MD5", KDXDigestAlgorithmMD5, "900150983cd24fb0d6963f7d28e17f72"},
                           Known{"SHA1", KDXDigestAlgorithmSHA1, "a9993e364706816aba3e25717850c26c9cd0d89d"},
                           Known{"XXHash64BE", KDXDigestAlgorithmXXHash64BE, "44bc2cf5ad770999"},
                           Known{"XXHash64", KDXDigestAlgorithmXXHash64, "990977adf52cbc44"}};

// The algorithm with whose name and a colon the text begins; null if there is none.
const Known* namedIn(std::string_view text) {
  for (const Known& row : known) {
    if (text.starts_with(std::string(row.name) + ":")) return &row;
  }
  return nullptr;
}

bool isDigestOfCopied(const Known& row, std::string_view text) {
  const std::string expected = std::string(row.name) + ":" + row.hexOfCopied;
  return text.size() == expected.size() && ::strncasecmp(text.data(), expected.data(), expected.size()) == 0;
}

// The steps of a job that use the hash, without files.
bool passes(const std::string& text, uint32_t copyAlgorithm) {
  const auto job = KDXDispatchCopy::initWithSourceURL(platform::FileURL("/card/clip.mov"));
  job->setDigestAlgorithm(copyAlgorithm);
  job->setExternalHash(text);
  job->setupHash();
  job->updateHash(std::as_bytes(std::span(copied)));
  job->finalizeHash();
  std::optional<platform::Error> error;
  const bool passed = job->performExternalHashVerification(&error);
  require(passed != error.has_value(), "a hash that differs is an error, and no other");
  require(passed || error->code == 103, "a hash that differs has its own code");
  return passed;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view input = textOf(data, size);
  const std::size_t line = std::min(input.find('\n'), input.size());
  const auto copyAlgorithm = static_cast<uint32_t>(std::atoi(std::string(input.substr(0, line)).c_str()));
  const std::string text(input.substr(std::min(line + 1, input.size())));

  const auto [form, algorithm] = ExternalHash::fromText(text);

  const auto colons = std::ranges::count(text, ':');
  const bool hasTwoParts = colons == 1 && !text.ends_with(':');
  const Known* const row = namedIn(text);
  require(hasTwoParts == (form != ExternalHash::Form::notTwoParts), "two parts have one colon between them");
  require((hasTwoParts && row != nullptr) == (form == ExternalHash::Form::understood), "names are spelt exactly");
  require(algorithm == (form == ExternalHash::Form::understood ? row->algorithm : 0), "a name gives its algorithm");
  if (form != ExternalHash::Form::understood) return 0;
  require(passes(text, copyAlgorithm) == isDigestOfCopied(*row, text),
          "the digest of the copy passes, and nothing else");
  return 0;
}
