#pragma once

#include <cstddef>
#include <cstdint>

// MD5 (RFC 1321) allows no parallel work inside one stream, but eight streams fit side by side into the lanes of vector
// registers. Together they take 1.5 to 2.5 times as long as one, depending on the processor and its instructions.

inline constexpr std::size_t streamsOfMD5EightStreams = 8;

// The chaining variables A, B, C, D of eight streams. Each stream is a column.
using MD5EightStates = uint32_t[4][streamsOfMD5EightStreams];

// Digests `blocks` blocks of 64 bytes of each stream. All eight streams must be given; if the result of one is not needed, it
// may share the data of another one.
using MD5EightStreams = void(MD5EightStates& states, const std::byte* const (&data)[streamsOfMD5EightStreams],
                             std::size_t blocks);

// For processors with AVX2, and for those with the AVX-512 instructions F and VL, which rotate in one step instead of three.
// Not to be called on other processors. Only x86-64 has them.
MD5EightStreams md5EightStreamsAVX2;
MD5EightStreams md5EightStreamsAVX512;

// The functions that this processor can run; null for the others.
struct MD5EightStreamsOfThisProcessor {
  MD5EightStreams* avx2 = nullptr;
  MD5EightStreams* avx512 = nullptr;

  [[nodiscard]] MD5EightStreams* fastest() const { return avx512 != nullptr ? avx512 : avx2; }
};

// Asks the processor, which takes 0.08 ms in a virtual machine. So it is not called for short files.
MD5EightStreamsOfThisProcessor md5EightStreamsOfThisProcessor();
