// WLStreamSource: where WLDataNode::decode gets a stream's bytes.
//
// A mapped file, a file read block by block into a buffer of the caller's
// (when the system will not map it), or a span of memory that the caller
// keeps alive. The mapping of a file outlives the decode: the node's columns
// are views over it. Owned by one WLDataNode; `read` may be called from two
// threads at once, each with its own buffer. Failures: `read` and
// `checkLength` throw std::runtime_error naming the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace VSKTspServer {

class WLStreamSource {
 public:
  // Takes the open descriptor `fd` of a file of `size` bytes and maps it.
  WLStreamSource(int fd, std::string path, uint64_t size);
  WLStreamSource(const uint8_t* bytes, int64_t size);
  ~WLStreamSource();
  WLStreamSource(const WLStreamSource&) = delete;
  WLStreamSource& operator=(const WLStreamSource&) = delete;

  // The mapped file, or null.
  const uint8_t* mapping() const { return map_; }

  // Throws when the file is now shorter than `end` bytes: touching a mapped
  // page past its end would fault.
  void checkLength(uint64_t end) const;

  // The pass over the records is done: the mapping stays, the descriptor
  // goes, and the records are now read in any order.
  void finishPass();

  // `size` bytes from `offset`, valid until the next call with the same
  // `buffer` (each thread brings its own, used when the file is not mapped).
  const uint8_t* read(uint64_t offset, size_t size, std::vector<uint8_t>& buffer) const;

 private:
  void closeFile();

  int fd_ = -1;
  std::string path_;
  const uint8_t* memory_ = nullptr;
  const uint8_t* map_ = nullptr;
  uint64_t size_ = 0;
};

}  // namespace VSKTspServer
