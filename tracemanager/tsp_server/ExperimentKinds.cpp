#include "tsp_server/ExperimentKinds.hpp"

#include <map>
#include <mutex>

#include "experiments/ETBExperiment.hpp"
#include "experiments/MTBExperiment.hpp"
#include "experiments/TDFExperiment.hpp"

namespace VSKTspServer {

namespace {

struct KindTable {
  std::mutex mutex;  // guards makers
  std::map<std::string, ExperimentMaker> makers;
};

template <typename Kind>
ExperimentMaker makerOf() {
  return [](const std::string& name, DataBroker* broker) -> std::unique_ptr<VSKExperiment> {
    return std::make_unique<Kind>(name, broker);
  };
}

// Built on first use, so nothing runs at load time; destroyed with the
// module, so a host that unloads it leaves nothing behind.
KindTable& kindTable() {
  static KindTable table;
  static std::once_flag builtIns;
  std::call_once(builtIns, [] {
    table.makers["MTB"] = makerOf<MTBExperiment>();
    table.makers["ETB"] = makerOf<ETBExperiment>();
    table.makers["TDF"] = makerOf<TDFExperiment>();
  });
  return table;
}

}  // namespace

void registerExperimentKind(const std::string& type, ExperimentMaker maker) {
  auto& table = kindTable();
  std::lock_guard lock(table.mutex);
  table.makers[type] = std::move(maker);
}

std::unique_ptr<VSKExperiment> makeExperiment(const std::string& type, const std::string& name,
                                              DataBroker* broker) {
  ExperimentMaker maker;
  {
    auto& table = kindTable();
    std::lock_guard lock(table.mutex);
    auto it = table.makers.find(type);
    if (it == table.makers.end()) return nullptr;
    maker = it->second;
  }
  return maker(name, broker);
}

}  // namespace VSKTspServer
