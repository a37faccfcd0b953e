#include <native/bytes/FreedMemory.h>

#if defined(__linux__)
#include <features.h>
#endif
#if defined(__GLIBC__)
#include <malloc.h>
#endif

void keepFreedMemory() {
#if defined(__GLIBC__)
  constexpr int largestThreshold = 32 << 20;  // of glibc; larger arrays are returned at once
  constexpr int kept = 128 << 20;
  mallopt(M_MMAP_THRESHOLD, largestThreshold);
  mallopt(M_TRIM_THRESHOLD, kept);
#endif
}
