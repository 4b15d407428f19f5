// QX_NLV::uFile: a C stream with its own lock.
//
// Thread-safe: stream calls are serialised by the file's lock. The stream is
// opened shared, so other processes may read and write the same file.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

#include "source_utilities/uMutex.hpp"

namespace QX_NLV {

class uFile {
 public:
  uFile() = default;
  uFile(const uFile&) = delete;
  uFile& operator=(const uFile&) = delete;
  virtual ~uFile();

  // Stores name and mode (a null name as "") and opens; gives isOpen().
  bool open(const char* name, const char* mode);
  // Gives false when no stream was open. A failing close leaves isOpen() true.
  bool close();
  bool flush();
  // Bytes written; 0 when not open.
  size_t write(const void* data, size_t size);

  bool isOpen() const { return isOpen_; }
  const std::string& name() const { return name_; }

 private:
  bool isOpen_ = false;
  std::string name_;
  const char* mode_ = nullptr;
  FILE* stream_ = nullptr;  // guarded by lock_
  uMutex lock_;
};

}  // namespace QX_NLV
