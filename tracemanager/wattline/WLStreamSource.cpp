#include "wattline/WLStreamSource.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace VSKTspServer {

WLStreamSource::WLStreamSource(int fd, std::string path, uint64_t size)
    : fd_(fd), path_(std::move(path)), size_(size) {
  if (size_ == 0) return;
  void* map = ::mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd_, 0);
  if (map == MAP_FAILED) return;
  map_ = static_cast<const uint8_t*>(map);
  ::madvise(map, size_, MADV_SEQUENTIAL);
}

WLStreamSource::WLStreamSource(const uint8_t* bytes, int64_t size)
    : memory_(bytes), size_(static_cast<uint64_t>(size)) {}

WLStreamSource::~WLStreamSource() {
  if (map_ != nullptr) ::munmap(const_cast<uint8_t*>(map_), size_);
  closeFile();
}

void WLStreamSource::checkLength(uint64_t end) const {
  struct stat info {};
  if (end > size_ || fd_ < 0 || ::fstat(fd_, &info) != 0 ||
      static_cast<uint64_t>(info.st_size) < end) {
    throw std::runtime_error("Cannot read " + path_ +
                             ": the file became shorter while it was decoded");
  }
}

void WLStreamSource::finishPass() {
  if (map_ != nullptr) ::madvise(const_cast<uint8_t*>(map_), size_, MADV_NORMAL);
  closeFile();
}

const uint8_t* WLStreamSource::read(uint64_t offset, size_t size,
                                    std::vector<uint8_t>& buffer) const {
  if (memory_ != nullptr) return memory_ + offset;
  if (map_ != nullptr) {
    checkLength(offset + size);
    return map_ + offset;
  }
  if (buffer.size() < size) buffer.resize(size);
  size_t done = 0;
  while (done < size) {
    ssize_t got =
        ::pread(fd_, buffer.data() + done, size - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      throw std::runtime_error("Cannot read " + path_ + ": " + std::strerror(errno));
    }
    if (got == 0) {
      throw std::runtime_error("Cannot read " + path_ +
                               ": the file became shorter while it was decoded");
    }
    done += static_cast<size_t>(got);
  }
  return buffer.data();
}

void WLStreamSource::closeFile() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

}  // namespace VSKTspServer
