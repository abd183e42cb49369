#include "KDXFileTools/kdxoffload/Results.h"

namespace kdxoffload {

Results::Results(std::size_t entries, std::size_t destinations)
    : after(destinations, DestinationListing(entries)),
      digests(entries),
      read(entries),
      _destinations(destinations),
      _proofs(entries * destinations, Proof::none) {}

Proof Results::proof(EntryIndex entry, std::size_t destination) const {
  return _proofs[entry * _destinations + destination];
}

void Results::setProof(EntryIndex entry, std::size_t destination, Proof proof) {
  _proofs[entry * _destinations + destination] = proof;
}

DestinationSet Results::provedAt(EntryIndex entry) const {
  DestinationSet proved;
  for (std::size_t destination = 0; destination < _destinations; ++destination) {
    if (proof(entry, destination) != Proof::none) proved.insert(destination);
  }
  return proved;
}

bool Results::isProvedEverywhere(EntryIndex entry) const {
  return _destinations != 0 && provedAt(entry).size() == _destinations;
}

}  // namespace kdxoffload
