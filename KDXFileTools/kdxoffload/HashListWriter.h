#pragma once

#include "KDXFileTools/kdxoffload/HashList.h"
#include "KDXFileTools/kdxoffload/XMLWriter.h"

namespace kdxoffload {

// Writes the list as a document, with the elements in the order that the standard wants. The digests of a file or folder are put in the
// order of HashFormat. Every path must be one that XML can hold.
void writeHashList(const HashList& list, const XMLWriter::Sink& sink);

}  // namespace kdxoffload
