// The tool error interface, shared by the debug tool libraries and the
// module across library borders. Tool libraries throw objects derived from
// it (by reference); the module catches `hemlockErrorIF&` at each call into a
// tool library and turns it into that layer's own result. Not derived from
// std::exception on purpose: a tool error never reaches the command layer.
//
// Slot order is fixed: the ten operations below, then the implementer's
// destructor. Not thread-safe: one error object belongs to one thread.
#pragma once

namespace Qx::Nlv::Hemlock {

class __attribute__((visibility("default"))) hemlockErrorIF {
 public:
  enum Severity_Type { Information = 0, Warning = 1, Error = 2, Internal = 3, Fatal = 4 };

  virtual const char* GetTitle() = 0;
  virtual void SetTitle(const char* title) = 0;
  virtual Severity_Type GetSeverity() const = 0;
  virtual void SetSeverity(Severity_Type severity) = 0;
  virtual const char* GetErrorText() const = 0;
  virtual void SetErrorText(const char* text) = 0;
  virtual const char* GetDetailedText() = 0;
  virtual void AddDetailedInfo(const char* text) = 0;
  virtual void PushText(const char* text) = 0;
  virtual void Delete() = 0;

 protected:
  // Destroyed through the implementer's own destructor slot (or Delete),
  // never through the interface.
  ~hemlockErrorIF() = default;
};

}  // namespace Qx::Nlv::Hemlock
