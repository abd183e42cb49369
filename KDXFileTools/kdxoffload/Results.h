#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/DestinationSet.h"
#include "KDXFileTools/kdxoffload/FileDigest.h"
#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// How a file was proved at a destination, or that it was not.
enum class Proof : uint8_t {
  none,
  before,   // an earlier run proved it, and nothing has changed since
  copied,   // this run copied it and read it back
  adopted,  // it was there already, and this run read and compared it
  unread,   // this run copied it, and did not read it back because the user did not want it
};

// Why something is not proved.
struct Failure {
  int status = 0;        // of the job (docs/output.md); 0: no job ran
  std::string reason{};  // one sentence, for a person
  DestinationSet destinations{};
  bool operator==(const Failure&) const = default;
};

// The results for all entries of the card. A plain value that the run fills and the verdict reads.
class Results {
 public:
  Results() = default;
  Results(std::size_t entries, std::size_t destinations);

  [[nodiscard]] std::size_t destinations() const { return _destinations; }
  [[nodiscard]] Proof proof(EntryIndex entry, std::size_t destination) const;
  void setProof(EntryIndex entry, std::size_t destination, Proof proof);
  // Proved at every destination. Links and folders: made, or there already.
  [[nodiscard]] bool isProvedEverywhere(EntryIndex entry) const;
  [[nodiscard]] DestinationSet provedAt(EntryIndex entry) const;

  // The first failure of a file stays, until a later try succeeds.
  std::map<EntryIndex, Failure> failures{};
  // Files that read differently once: never safe in this run, whatever a later try said.
  std::set<EntryIndex> unstable{};
  // Things that are not kept, or that a person should know beside the verdict; one sentence each, each once.
  std::vector<std::string> remarks{};
  // The facts that each entry had at each destination after its proof, or when the plan was made if it was proved before;
  // absent where it is not proved. What is compared at the end. By destination.
  std::vector<DestinationListing> after{};
  std::vector<FileDigest> digests{};  // one for each entry; none where nothing was read
  std::vector<int64_t> read{};        // when that was, nanoseconds since 1970; one for each entry, 0 if not by this run

 private:
  std::size_t _destinations = 0;
  std::vector<Proof> _proofs;
};

}  // namespace kdxoffload
