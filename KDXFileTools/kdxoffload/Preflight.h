#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/Listing.h"
#include "platform/FileManager.h"
#include "platform/Volume.h"

namespace kdxoffload {

// What was found out about the card's folder or a destination, before anything is written. A plain value.
struct PlaceFacts {
  std::string path{};      // as given
  std::string realPath{};  // absolute, no links; of a folder that is still to be made: its parent's, with the name
  bool exists = false;
  bool isFolder = false;
  bool isReadable = false;            // it can be listed
  bool isWritable = false;            // entries can be made in it; for one to be made, in its parent
  bool parentExists = false;          // its parent is a folder
  bool isLockedByOther = false;       // another offload is at work on it
  platform::FileIdentity identity{};  // of the folder, of its parent for one to be made
  std::vector<platform::FileIdentity>
      foldersAbove{};  // its parent and so on to the root, through bind mounts as through links
  platform::Volume volume{};
};

// What the copies will take on one destination, rounded up to its blocks.
struct RoomNeeded {
  uint64_t bytes = 0;
  uint64_t inodes = 0;
};

// All that is looked at before an offload may start. A plain value.
struct PreflightFacts {
  PlaceFacts card;
  std::vector<PlaceFacts> destinations{};
  std::vector<RoomNeeded> room{};  // of each destination; empty while the card is not listed yet
  std::vector<Unlisted> unlisted{};
  bool partial = false;
  // The folders that the catalogue is to be kept in or below, as far as they are there (foldersOfCatalogue).
  std::vector<platform::FileIdentity> catalogueFolders{};
};

// What comes of it: reasons not to start, in the order of the checks, and warnings that stand beside the verdict too. One
// sentence each, for a person; names in them are as they are on disk.
struct Preflight {
  std::vector<std::string> refusals{};
  std::vector<std::string> warnings{};
};

// The folder that a catalogue at the path would be in, or the first one above that is there already, and those above it; sees
// through links and bind mounts.
std::vector<platform::FileIdentity> foldersOfCatalogue(const std::string& path);

// A function of the facts alone. Called twice: before the card is listed (places), and with the room needed.
Preflight preflight(const PreflightFacts& facts);

// Looks at the place. Writes nothing. To be called before this process locks the folder: its own lock would be another's.
PlaceFacts placeFacts(const std::string& path);

}  // namespace kdxoffload
