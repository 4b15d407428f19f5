// Fuzz target: the header of a .tdf recording, as a TDF session opens a file
// it was given. Input: the bytes of the file. A header of any shape gives
// true or false; nothing may crash, read past the file or hang.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "tool_access/CTRACE.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The reader takes a path; one file per process, rewritten each time.
  static const std::string path = "/tmp/ostrand-fuzz-" + std::to_string(::getpid()) + ".tdf";
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) return 0;
  if (size > 0) std::fwrite(data, 1, size, file);
  std::fclose(file);
  CTRACE trace;
  trace.readHeader(path);
  return 0;
}
