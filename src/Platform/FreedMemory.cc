#include "Platform/FreedMemory.h"

#include <malloc.h>

namespace {
constexpr int kMappedAlone = 4 << 20;
constexpr int kKeptTop = 8 << 20;
}  // namespace

void FreedMemory::keepLittle() {
  // Setting either one also stops glibc from moving it later. Called before any
  // thread starts.
  ::mallopt(M_MMAP_THRESHOLD, kMappedAlone);  // NOLINT(concurrency-mt-unsafe)
  ::mallopt(M_TRIM_THRESHOLD, kKeptTop);      // NOLINT(concurrency-mt-unsafe)
}

void FreedMemory::giveBack() { ::malloc_trim(0); }
