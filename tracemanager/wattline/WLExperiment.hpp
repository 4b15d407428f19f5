// WLExperiment: the experiment of a power capture ("WL", "WL+", "Wattline",
// "Wattline+").
//
// Finds the capture's files, picks the state decoder from the supplement's
// `JState`, decodes the stream into a WLDataNode and offers the views:
// "Records" (table), "Summary" (data tree), "Current" (line graph, under
// the histogram id) and, for streams with state words, "States" (time
// graph). Loads run on the caller's thread, inside the request that asked.
//
// The data file: the metadata's `dataFile` for this load, unless it is
// "unknown" (what the capture side writes) or names no file in the
// directory; then `WLData.bin`.
//
// Threads: no lock of its own; the server's request lock covers every
// call. Errors: "Corrupted buffer" from the decoder and JSON type errors
// from the metadata or the state description leave open/refresh and keep
// the status "RUNNING"; a missing data file or supplement is no error.
#pragma once

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "experiments/VSKExperiment.hpp"
#include "wattline/WLDataNode.hpp"
#include "wattline/WLStateGraph.hpp"
#include "wattline/WLViews.hpp"

namespace VSKTspServer {

class WLExperiment : public VSKExperiment {
 public:
  WLExperiment(std::string name, DataBroker* broker);
  ~WLExperiment() override;

  void open() override;
  void close() override;
  void refresh() override;
  int exportCsv(std::string path, std::string outputName) override;

  void loadData(bool reread);
  // The load of one trace, inside the base's load sequence.
  void loadTrace(VSKTrace& trace);
  void loadSupMetaData();

  std::string dataFile = "WLData.bin";
  const std::string supplementFile = "metadataSup.json";
  std::unique_ptr<WLDataNode> dataNode;
  std::string dataFolder;
  std::unique_ptr<WLTable> table;
  std::unique_ptr<WLLineGraph> lineGraph;
  std::unique_ptr<WLSummary> summary;
  std::unique_ptr<WLStateGraph> stateGraph;
  nlohmann::json supplement;
};

}  // namespace VSKTspServer
