// QX_NLV::uDll: one dynamically loaded library.
//
// The only place where libraries are loaded by name. Names follow the
// platform rule of Platform.hpp ("hemlock" and "hemlock.dll" load
// libhemlock.so). Raises nothing: failures give false and keep the reason in
// errorText(). Not thread-safe; one object belongs to one caller.
#pragma once

#include <cstdint>
#include <string>

namespace QX_NLV {

class uDll {
 public:
  explicit uDll(const char* name = nullptr, unsigned int mode = 0);
  uDll(const uDll&) = delete;
  uDll& operator=(const uDll&) = delete;
  virtual ~uDll();

  bool FindAndLoad(const char* name, unsigned int mode);
  // Appends the loaded library's full path to `out` and gives it.
  std::string& modulePath(std::string& out) const;
  // A symbol of the loaded library: the plain name first, then with a
  // leading "_". Null when not loaded or not found.
  void* symbol(const char* name) const;
  // Keeps the loaded library in the process until it ends, whatever later
  // closes it (this object's destruction too): for libraries whose threads
  // and objects may outlive the code that loaded them. False when not loaded.
  bool pin() const;

  bool loaded() const { return handle_ != nullptr; }
  const std::string& name() const { return name_; }
  unsigned int mode() const { return mode_; }
  const std::string& errorText() const { return errorText_; }

 private:
  std::string name_;
  unsigned int mode_ = 0;
  void* handle_ = nullptr;
  std::string errorText_;
};

}  // namespace QX_NLV
