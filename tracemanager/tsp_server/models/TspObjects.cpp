#include "tsp_server/models/TspObjects.hpp"

namespace VSKTspServer {

using nlohmann::json;

void to_json(json& j, const Trace& t) {
  j = json{{"UUID", t.UUID},     {"name", t.name},   {"path", t.path},
           {"nbEvents", t.nbEvents}, {"start", t.start}, {"end", t.end},
           {"indexingStatus", t.indexingStatus}};
}

void to_json(json& j, const Experiment& e) {
  j = json{{"UUID", e.UUID},         {"name", e.name},   {"traces", e.traces},
           {"nbEvents", e.nbEvents}, {"start", e.start}, {"end", e.end},
           {"indexingStatus", e.indexingStatus}};
}

void to_json(json& j, const DataProvider& d) {
  j = json{{"id", d.id}, {"name", d.name}, {"type", d.type}, {"description", d.description}};
}

void to_json(json& j, const MarkerSet& m) { j = json{{"name", m.name}, {"id", m.id}}; }

void to_json(json& j, const MarkerSetsResponse& r) { j = json{{"model", r.model}}; }

void to_json(json& j, const HealthResponse& r) { j = json{{"status", r.status}}; }

}  // namespace VSKTspServer
