#pragma once

#include <cstddef>
#include <cstdint>

// MD5 (RFC 1321) allows no parallel work inside one stream, but eight streams fit side by side into the lanes of vector
// registers: together they take one and a half to two and a half times as long as one, by processor and instructions.

inline constexpr std::size_t streamsOfMD5EightStreams = 8;

// The chaining variables A, B, C, D of eight streams, one stream a column.
using MD5EightStates = uint32_t[4][streamsOfMD5EightStreams];

// Digests `blocks` blocks of 64 bytes of each stream. All eight have to be given; two may share data when the result of
// one is not wanted.
using MD5EightStreams = void(MD5EightStates& states, const std::byte* const (&data)[streamsOfMD5EightStreams],
                             std::size_t blocks);

// For processors with AVX2, and for those with the AVX-512 instructions F and VL, which rotate in one step instead of three.
// Not to be called on others; there are none for processors that are not x86-64.
MD5EightStreams md5EightStreamsAVX2;
MD5EightStreams md5EightStreamsAVX512;

// Those that this processor can run.
struct MD5EightStreamsOfThisProcessor {
  MD5EightStreams* avx2 = nullptr;
  MD5EightStreams* avx512 = nullptr;

  [[nodiscard]] MD5EightStreams* fastest() const { return avx512 != nullptr ? avx512 : avx2; }
};

// Asks the processor, which takes 0.08 ms in a virtual machine: not to be called for short files.
MD5EightStreamsOfThisProcessor md5EightStreamsOfThisProcessor();
