#include "server/lib/FreeMemory.h"

#include <malloc.h>

namespace rrm {

void FreeMemory::keep_little() noexcept {
  mallopt(M_TRIM_THRESHOLD, kKeptAtOnce);
  // Setting either fixes both, and the default would map and unmap each larger document.
  mallopt(M_MMAP_THRESHOLD, kKeptAtOnce);
}

bool FreeMemory::give_back(std::int64_t now_s) noexcept {
  if (now_s - last_look_s_ < kInterval_s) return false;
  last_look_s_ = now_s;
  const struct mallinfo2 heap = mallinfo2();
  if (heap.fordblks < kMuch || heap.fordblks < heap.uordblks) return false;
  return malloc_trim(0) != 0;
}

}  // namespace rrm
