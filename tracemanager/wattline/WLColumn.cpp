#include "wattline/WLColumn.hpp"

#include <sys/mman.h>

#include <new>

namespace VSKTspServer::detail {

void* mapZeroed(size_t bytes) {
  void* data = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (data == MAP_FAILED) throw std::bad_alloc();
  // Columns of a long capture are gigabytes; huge pages cut the page faults
  // of the first write by a factor of 512. Only a hint.
  if (bytes >= (size_t{8} << 20)) ::madvise(data, bytes, MADV_HUGEPAGE);
  return data;
}

void unmapZeroed(void* data, size_t bytes) noexcept { ::munmap(data, bytes); }

}  // namespace VSKTspServer::detail
