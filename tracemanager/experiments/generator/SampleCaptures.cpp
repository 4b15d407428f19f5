#include "experiments/generator/SampleCaptures.hpp"

namespace VSKTspServer::samples {

nlohmann::json defaultMetadata(const std::string& target, const std::string& type) {
  std::string dataFile = type == "MTB" ? "mtb_data.json"
                         : type == "TDF" ? "tdf_data.json"
                         : type == "ETB" ? "etb_data.json"
                                         : "unknown";
  return {{"typeId", type},       {"device", target},   {"deviceId", "unknown"},
          {"source", "VSK Vireo"}, {"dataFile", dataFile}, {"time", "2024-01-01T00:00:00Z"}};
}

nlohmann::json mtbDocument(int runs, int perRun) {
  nlohmann::json doc = {{"header", {"PC", "Asm"}}, {"data", nlohmann::json::array()},
                        {"code", nlohmann::json::array()}};
  int seq = 0;
  for (int r = 0; r < runs; ++r) {
    doc["data"].push_back({{"seq", r},
                           {"first", r == 0 ? "" : "08000100"},
                           {"last", "08000110"},
                           {"function", "fn" + std::to_string(r)},
                           {"file", "main.c"},
                           {"dir", "/src"}});
    nlohmann::json code = nlohmann::json::array();
    for (int i = 0; i < perRun; ++i) {
      code.push_back({{"seq", seq++},
                      {"addr", "080001" + std::to_string(10 + i)},
                      {"asm", "  movs r0, #1"},
                      {"lno", 12 + i},
                      {"src", "    x = 1;"}});
    }
    doc["code"].push_back(code);
  }
  return doc;
}

nlohmann::json tdfDocument(int rows) {
  nlohmann::json doc = {{"Columns", {{{"name", "Time"}}, {{"name", "Event"}}}},
                        {"Rows", nlohmann::json::array()}};
  for (int i = 0; i < rows; ++i)
    doc["Rows"].push_back({std::to_string(i), i % 2 ? nlohmann::json(nullptr) : "a,b"});
  return doc;
}

}  // namespace VSKTspServer::samples
