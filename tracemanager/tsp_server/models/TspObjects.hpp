// The protocol objects that stand outside a response frame: traces,
// experiments, output descriptors, marker sets and the health answer.
//
// `Trace`, `Experiment` and `DataProvider` are plain field records; the model
// manager, the experiments and the providers derive from or hold them, and
// the handlers serialize them with to_json. No key is ever left out.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace VSKTspServer {

// The part of a capture directory that the protocol shows.
struct Trace {
  std::string name;
  std::string path;  // the directory that holds the `metadata` file
  int64_t nbEvents = 0;
  int64_t start = 0;
  std::string indexingStatus;
  int64_t end = 0;
  std::string UUID;
};
void to_json(nlohmann::json& j, const Trace& t);

// The part of an experiment that the protocol shows.
struct Experiment {
  std::string name;
  std::vector<Trace> traces;  // copies made when the experiment was opened
  int64_t nbEvents = 0;
  int64_t start = 0;
  std::string indexingStatus;  // "", "RUNNING", "COMPLETED" or "CLOSED"
  int64_t end = 0;
  std::string UUID;
};
void to_json(nlohmann::json& j, const Experiment& e);

// The descriptor of an output, written as an `OutputDescriptor`.
struct DataProvider {
  std::string name;
  std::string id;
  std::string type;  // "TABLE", "TIME_GRAPH", "TREE_TIME_XY" or "DATA_TREE"
  std::string description;
};
void to_json(nlohmann::json& j, const DataProvider& d);

struct MarkerSet {
  std::string name;
  std::string id;
};
void to_json(nlohmann::json& j, const MarkerSet& m);

// GET .../outputs/markerSets: the single key `model`.
struct MarkerSetsResponse {
  std::vector<MarkerSet> model;
};
void to_json(nlohmann::json& j, const MarkerSetsResponse& r);

// GET /health: the single key `status`.
struct HealthResponse {
  std::string status;
};
void to_json(nlohmann::json& j, const HealthResponse& r);

}  // namespace VSKTspServer
