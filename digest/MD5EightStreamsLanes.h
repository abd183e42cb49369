#pragma once

// The steps of MD5 (RFC 1321) on vectors of eight words, for files that are compiled with the vector instructions of newer
// processors. These files must not use inline functions of other headers: the linker could take their version of such a
// function, with the newer instructions, for the whole program.

#include "digest/MD5EightStreams.h"

namespace {

inline constexpr int lanes = streamsOfMD5EightStreams;
typedef uint32_t Lanes __attribute__((vector_size(4 * lanes)));
typedef Lanes UnalignedLanes __attribute__((aligned(1), may_alias));

// floor(2^32 * abs(sin(i + 1))) for step i.
inline constexpr uint32_t sines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,  //
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,  //
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,  //
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,  //
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,  //
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,  //
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,  //
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};
inline constexpr int rotations[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
inline constexpr int wordFactors[4] = {1, 5, 3, 7};
inline constexpr int wordOffsets[4] = {0, 1, 5, 0};

struct State {
  Lanes a, b, c, d;
};

template <int round>
[[gnu::always_inline]] inline Lanes mix(const State& s) {
  if constexpr (round == 0) return s.d ^ (s.b & (s.c ^ s.d));
  if constexpr (round == 1) return s.d & s.b;  // has no bit in common with ~d & c, which is added earlier
  if constexpr (round == 2) return s.b ^ (s.c ^ s.d);
  if constexpr (round == 3) return s.c ^ (s.b | ~s.d);
}

template <int step>
[[gnu::always_inline]] inline void doStep(State& s, const Lanes* words) {
  constexpr int round = step / 16;
  constexpr int rotation = rotations[round][step % 4];
  Lanes sum = s.a + words[(step * wordFactors[round] + wordOffsets[round]) % 16] + sines[step];
  if constexpr (round == 1) sum += ~s.d & s.c;
  // Every step waits for the one before it, but this sum need not wait. Without a barrier g++ adds in another order, in which
  // the sum waits too: 400 MB/s a stream instead of 450, with AVX2 on an older processor.
  asm("" : "+v"(sum));
  sum += mix<round>(s);
  s = State{s.d, s.b + (sum << rotation | sum >> (32 - rotation)), s.b, s.c};
}

template <int step = 0>
[[gnu::always_inline]] inline void doSteps(State& s, const Lanes* words) {
  doStep<step>(s, words);
  if constexpr (step + 1 < 64) doSteps<step + 1>(s, words);
}

[[gnu::always_inline]] inline Lanes load(const void* from) {
  return *static_cast<const UnalignedLanes*>(from);
}

[[gnu::always_inline]] inline void store(Lanes words, void* to) {
  *static_cast<UnalignedLanes*>(to) = words;
}

// Turns eight words of each stream into eight vectors, each with the same word of all streams.
[[gnu::always_inline]] inline void transposeEightWords(const std::byte* const* data, std::size_t offset, Lanes* words) {
  Lanes rows[lanes];
  for (int stream = 0; stream < lanes; ++stream) {
    rows[stream] = load(data[stream] + offset);
  }
  Lanes pairs[lanes];
  for (int i = 0; i < lanes; i += 2) {
    pairs[i] = __builtin_shufflevector(rows[i], rows[i + 1], 0, 8, 1, 9, 4, 12, 5, 13);
    pairs[i + 1] = __builtin_shufflevector(rows[i], rows[i + 1], 2, 10, 3, 11, 6, 14, 7, 15);
  }
  Lanes fours[lanes];
  for (int i = 0; i < lanes; i += 4) {
    for (int half = 0; half < 2; ++half) {
      fours[i + 2 * half] = __builtin_shufflevector(pairs[i + half], pairs[i + half + 2], 0, 1, 8, 9, 4, 5, 12, 13);
      fours[i + 2 * half + 1] =
          __builtin_shufflevector(pairs[i + half], pairs[i + half + 2], 2, 3, 10, 11, 6, 7, 14, 15);
    }
  }
  for (int i = 0; i < 4; ++i) {
    words[i] = __builtin_shufflevector(fours[i], fours[i + 4], 0, 1, 2, 3, 8, 9, 10, 11);
    words[i + 4] = __builtin_shufflevector(fours[i], fours[i + 4], 4, 5, 6, 7, 12, 13, 14, 15);
  }
}

[[gnu::always_inline]] inline void digestBlocks(MD5EightStates& states,
                                                const std::byte* const (&data)[streamsOfMD5EightStreams],
                                                std::size_t blocks) {
  constexpr std::size_t blockSize = 64;
  State state{load(states[0]), load(states[1]), load(states[2]), load(states[3])};
  for (std::size_t block = 0; block < blocks; ++block) {
    Lanes words[16];
    transposeEightWords(data, block * blockSize, words);
    transposeEightWords(data, block * blockSize + blockSize / 2, words + 8);
    const State before = state;
    doSteps(state, words);
    state = State{state.a + before.a, state.b + before.b, state.c + before.c, state.d + before.d};
  }
  store(state.a, states[0]);
  store(state.b, states[1]);
  store(state.c, states[2]);
  store(state.d, states[3]);
}

}  // namespace
