// ExperimentKinds: which experiment class a capture kind becomes.
//
// The model manager creates an experiment for a trace by the trace's `type`
// through this table. MTB, ETB and TDF are built in; other kinds (the power
// captures "WL", "WL+", "Wattline", "Wattline+") are added by the layer that
// links their library, with `registerExperimentKind`, before the first scan.
// This keeps the server free of a dependency on those libraries.
//
// Thread-safe. A later registration for the same type replaces the earlier.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace VSKTspServer {

class DataBroker;
class VSKExperiment;

// Makes an experiment named `name` that reads through `broker`; the class
// has its own default data file. May throw; the model manager lets the
// exception travel to its caller.
using ExperimentMaker =
    std::function<std::unique_ptr<VSKExperiment>(const std::string& name, DataBroker* broker)>;

void registerExperimentKind(const std::string& type, ExperimentMaker maker);
// Null when no maker is known for `type`.
std::unique_ptr<VSKExperiment> makeExperiment(const std::string& type, const std::string& name,
                                              DataBroker* broker);

}  // namespace VSKTspServer
