// AsyncInterface::Scripting::TraceScriptingRootObject: the scripting.*
// commands for automation. Behaves as a CloudTrace of its own (own sessions,
// own lock) but reports a session that cannot start as an error, takes a
// typed configuration and waits for the CSV export. Its event signals are
// connected to nothing: scripting sessions send no events.
//
// Worker thread only.
#pragma once

#include "AsyncInterface/source/CloudTrace.hpp"

namespace AsyncInterface::Scripting {

class TraceScriptingRootObject : public CloudTrace {
 public:
  void registerCommands(JSONInterface::Translator& translator);
};

}  // namespace AsyncInterface::Scripting
