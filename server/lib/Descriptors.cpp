#include "server/lib/Descriptors.h"

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace rrm {

bool leaves_descriptors(int descriptor, const DescriptorReserve& reserve) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return true;
  const std::uint64_t spare = std::min<std::uint64_t>(reserve.most, limit.rlim_cur / reserve.share);
  return static_cast<std::uint64_t>(descriptor) < limit.rlim_cur - spare;
}

bool descriptors_available(std::size_t count) {
  std::vector<int> opened;
  while (opened.size() < count) {
    const int descriptor = eventfd(0, EFD_CLOEXEC);
    if (descriptor < 0) break;
    opened.push_back(descriptor);
  }
  for (const int descriptor : opened) close(descriptor);
  return opened.size() == count;
}

}  // namespace rrm
