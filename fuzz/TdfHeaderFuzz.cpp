// Fuzz target: the header of a .tdf recording, as a TDF session opens a file
// it was given. Input: the bytes of the file. A header of any shape gives
// true or false; nothing may crash, read past the file or hang.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "tool_access/CTRACE.hpp"

namespace {

// The reader takes a path ending in ".tdf". One file per process, in shared
// memory when the system has it, rewritten in place for each input, so an
// input costs no disk write and no new file.
struct InputFile {
  InputFile() {
    const std::string name = "/ostrand-fuzz-" + std::to_string(::getpid()) + ".tdf";
    for (const char* dir : {"/dev/shm", "/tmp"}) {
      path = dir + name;
      fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
      if (fd >= 0) break;
    }
  }
  ~InputFile() {
    if (fd < 0) return;
    ::close(fd);
    ::unlink(path.c_str());
  }
  bool write(const uint8_t* data, size_t size) const {
    if (fd < 0 || ::ftruncate(fd, 0) != 0) return false;
    size_t done = 0;
    while (done < size) {
      ssize_t n = ::pwrite(fd, data + done, size - done, static_cast<off_t>(done));
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }
  std::string path;
  int fd = -1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const InputFile file;
  if (!file.write(data, size)) return 0;
  CTRACE trace;
  trace.readHeader(file.path);
  return 0;
}
