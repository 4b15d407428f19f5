// How a power capture becomes an experiment: the four capture kinds served
// by WLExperiment, handed to the trace server's kind table by the layer
// that links both libraries. The server itself knows nothing of Wattline:
//
//   registerWattlineKinds(VSKTspServer::registerExperimentKind);
//
// Call it before the first scan of the data tree. Thread-safe as far as
// `registerKind` is.
#pragma once

#include <memory>
#include <string>

#include "wattline/WLExperiment.hpp"

namespace VSKTspServer {

inline constexpr const char* kWattlineKinds[] = {"WL", "WL+", "Wattline", "Wattline+"};

inline std::unique_ptr<VSKExperiment> makeWLExperiment(const std::string& name,
                                                       DataBroker* broker) {
  return std::make_unique<WLExperiment>(name, broker);
}

template <typename RegisterKind>
void registerWattlineKinds(RegisterKind&& registerKind) {
  for (const char* kind : kWattlineKinds) registerKind(kind, &makeWLExperiment);
}

}  // namespace VSKTspServer
