#ifdef __x86_64__

#include "digest/MD5EightStreamsLanes.h"

void md5EightStreamsAVX2(MD5EightStates& states, const std::byte* const (&data)[streamsOfMD5EightStreams],
                         std::size_t blocks) {
  digestBlocks(states, data, blocks);
}

#endif
