#include "Platform/FreedMemory.h"

#include <malloc.h>

namespace {
constexpr int kThreshold = 128 * 1024;
}  // namespace

void FreedMemory::keepLittle() {
  // Setting either one also stops glibc from raising it later. Called before any
  // thread starts.
  ::mallopt(M_MMAP_THRESHOLD, kThreshold);  // NOLINT(concurrency-mt-unsafe)
  ::mallopt(M_TRIM_THRESHOLD, kThreshold);  // NOLINT(concurrency-mt-unsafe)
}

void FreedMemory::giveBack() { ::malloc_trim(0); }
