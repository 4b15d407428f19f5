// The logger factory's context: anything that names itself in the host's
// log. Base of the symbol and disassembly environments, which the host's
// managers log under. Slot order: name, destructor.
#pragma once

namespace Logging {

class ILoggerContext {
 public:
  virtual const char* name() const = 0;
  virtual ~ILoggerContext() = default;
};

}  // namespace Logging
