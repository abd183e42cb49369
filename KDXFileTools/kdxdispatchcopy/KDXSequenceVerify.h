#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/KDXDispatchVerify.h"

// Digests an ordered list of files. The sequence digest is the digest of the bare hex texts of the files' digests, joined
// in list order without separators.
class KDXSequenceVerify final : public KDXDispatchVerify {
 public:
  static std::shared_ptr<KDXSequenceVerify> initWithFileURLs(std::vector<platform::FileURL> files, uint32_t algorithm);

  // Reads the files on the calling thread and returns the finalised sequence digest; null when the algorithm is
  // unknown. Reports no progress. Fails like the base class.
  std::shared_ptr<KDXDigestContext> calculateDigest(platform::ErrorPlace error) override;

 private:
  KDXSequenceVerify(std::vector<platform::FileURL> files, uint32_t algorithm);

  std::vector<platform::FileURL> _fileURLs;
};
