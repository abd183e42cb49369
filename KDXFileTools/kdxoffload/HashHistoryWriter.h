#pragma once

#include <cstdint>
#include <string>

#include "KDXFileTools/kdxoffload/HashHistories.h"
#include "KDXFileTools/kdxoffload/NextGeneration.h"
#include "platform/Error.h"
#include "platform/Folder.h"

namespace kdxoffload {

// Writes the next generation of every history that has one, what is further down first. A list is permanent and has its name before its
// chain names it, so that a kill at any moment leaves every history valid; one that no chain names yet is entered by the next call, even
// if nothing was read. Nothing that has a name is ever changed but the chain, which is replaced as a whole.
//
// False, with an error, at the first that can't be written; those before it stay. What was written is in `histories` too.
bool writeGenerations(const platform::Folder& root, HashHistories& histories, const GenerationFacts& facts,
                      platform::ErrorPlace error);

}  // namespace kdxoffload
