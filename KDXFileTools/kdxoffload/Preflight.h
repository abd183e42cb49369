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
  std::string path{};  // as given
  std::string
      realPath{};  // absolute, no links; for a folder that is still to be made: that of its parent, with its name
  bool exists = false;
  bool isFolder = false;
  bool isReadable = false;            // it can be listed
  bool isWritable = false;            // entries can be made in it; for a folder still to be made: in its parent
  bool parentExists = false;          // its parent is a folder
  bool isLockedByOther = false;       // another offload is at work on it
  platform::FileIdentity identity{};  // of the folder; for a folder still to be made: of its parent
  std::vector<platform::FileIdentity>
      foldersAbove{};  // its parent and so on, up to the root, through bind mounts and links
  platform::Volume volume{};
};

// The room that the copies need at one destination, rounded up to its blocks.
struct RoomNeeded {
  uint64_t bytes = 0;
  uint64_t inodes = 0;
};

// Everything that is checked before an offload may start. A plain value.
struct PreflightFacts {
  PlaceFacts card;
  std::vector<PlaceFacts> destinations{};
  std::vector<RoomNeeded> room{};  // at each destination; empty while the card is not listed
  std::vector<Unlisted> unlisted{};
  bool partial = false;
  // The folders that the catalogue is to be kept in or below, as far as they exist (foldersOfCatalogue).
  std::vector<platform::FileIdentity> catalogueFolders{};
};

// The result: reasons not to start, in the order of the checks, and warnings, which are shown with the verdict too. One
// sentence each, for a person. Names in them are as on disk.
struct Preflight {
  std::vector<std::string> refusals{};
  std::vector<std::string> warnings{};
};

// The folder that a catalogue at the path would be in, or the first one above it that exists, and those above that one; sees
// through links and bind mounts.
std::vector<platform::FileIdentity> foldersOfCatalogue(const std::string& path);

// A function of the facts only. Called twice: before the card is listed (places), and again with the room needed.
Preflight preflight(const PreflightFacts& facts);

// Looks at the place. Writes nothing. To be called before this process locks the folder: its own lock would look like that
// of another offload.
PlaceFacts placeFacts(const std::string& path);

}  // namespace kdxoffload
