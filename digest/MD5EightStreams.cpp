#include "digest/MD5EightStreams.h"

#ifdef __x86_64__

#include <cpuid.h>

// Not with the compiler's own query, which would ask at every start of the program.
MD5EightStreamsOfThisProcessor md5EightStreamsOfThisProcessor() {
  unsigned eax = 0;
  unsigned ebx = 0;
  unsigned ecx = 0;
  unsigned edx = 0;
  const auto hasAll = [](unsigned features, unsigned wanted) { return (features & wanted) == wanted; };
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0 || !hasAll(ecx, bit_OSXSAVE | bit_AVX)) return {};
  if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) == 0) return {};
  // The processor has the instructions; the system must also keep the registers when it changes threads.
  constexpr unsigned vectorRegisters = 0x06;
  constexpr unsigned moreAndWiderRegisters = 0xe0;
  unsigned kept = 0;
  asm volatile("xgetbv" : "=a"(kept), "=d"(edx) : "c"(0));
  if (!hasAll(kept, vectorRegisters)) return {};
  MD5EightStreamsOfThisProcessor found;
  if (hasAll(ebx, bit_AVX2)) found.avx2 = md5EightStreamsAVX2;
  if (hasAll(ebx, bit_AVX2 | bit_AVX512F | bit_AVX512VL) && hasAll(kept, moreAndWiderRegisters)) {
    found.avx512 = md5EightStreamsAVX512;
  }
  return found;
}

#else

MD5EightStreamsOfThisProcessor md5EightStreamsOfThisProcessor() {
  return {};
}

#endif
