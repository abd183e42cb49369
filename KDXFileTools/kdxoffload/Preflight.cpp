#include "KDXFileTools/kdxoffload/Preflight.h"

namespace kdxoffload {

Preflight preflight(const PreflightFacts& facts) {
  Preflight found;
  if (!facts.card.isFolder) found.refusals.push_back("the card is no folder: " + facts.card.path);
  return found;
}

PlaceFacts placeFacts(const std::string& path) {
  PlaceFacts facts{.path = path, .realPath = path};
  if (const auto folder = platform::Folder::open(path, nullptr)) {
    facts.exists = facts.isFolder = facts.isReadable = facts.isWritable = true;
    if (const auto own = folder->facts(nullptr)) facts.identity = own->identity;
  }
  return facts;
}

}  // namespace kdxoffload
