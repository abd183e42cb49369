#pragma once

#include <cstddef>
#include <cstdint>

// MD5 (RFC 1321) allows no parallel work inside one stream, but eight streams fit side by side into the lanes of vector
// registers: together they take little longer than one.

inline constexpr std::size_t streamsOfMD5EightStreams = 8;

// The chaining variables A, B, C, D of eight streams, one stream a column.
using MD5EightStates = uint32_t[4][streamsOfMD5EightStreams];

// True when this processor has the instructions that md5EightStreams is compiled for.
bool canDigestMD5EightStreams();

// Digests `blocks` blocks of 64 bytes of each stream. All eight have to be given; two may share data when the result of
// one is not wanted. Not to be called where canDigestMD5EightStreams is false.
void md5EightStreams(MD5EightStates& states, const std::byte* const (&data)[streamsOfMD5EightStreams],
                     std::size_t blocks);
