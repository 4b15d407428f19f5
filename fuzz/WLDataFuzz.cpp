// Fuzz target: a power stream with its state description, as a Wattline
// capture is loaded and first shown. Input: the JState JSON object, a NUL
// byte, then the bytes of WLData.bin; an input that does not begin with "{"
// is a stream alone, without a state description. Nothing in a stream may crash the server, read
// outside it, or hang its decoding.
#include <cstdint>
#include <cstring>
#include <string>

#include <nlohmann/json.hpp>

#include "wattline/WLDataNode.hpp"
#include "wattline/WLStateDecoders.hpp"
#include "wattline/WLStateGraph.hpp"
#include "wattline/WLViews.hpp"

using namespace VSKTspServer;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto* nul = size > 0 && data[0] == '{'
                        ? static_cast<const uint8_t*>(std::memchr(data, 0, size))
                        : nullptr;
  const uint8_t* stream = nul ? nul + 1 : data;
  const size_t streamSize = nul ? size - static_cast<size_t>(nul + 1 - data) : size;
  WLDataNode node;
  try {
    if (nul) {
      const auto jstate = nlohmann::json::parse(data, nul, nullptr, false);
      node.recordType = WLDataNode::kTypeWithStates;
      if (jstate.is_object() && jstate.contains("version") && jstate["version"].is_number_integer()) {
        node.dsr = makeStateDecoder(node, jstate["version"].get<int64_t>());
        if (node.dsr) {
          node.dsr->initDefaults();
          node.dsr->loadBitFields(jstate);
        }
      }
    }
  } catch (const nlohmann::json::exception&) {
    return 0;  // a bad description fails the load before the stream is read
  }
  node.readBuffer(stream, static_cast<int64_t>(streamSize));
  try {
    node.decode();
  } catch (const std::exception&) {
  }
  node.evaluateStates();
  node.computeStats(0, node.recordCount);
  const int64_t end = node.times.empty() ? 0 : static_cast<int64_t>(node.times.back());

  WLTable table(&node);
  TableLinesRequest lines;
  lines.requested_table_index = 0;
  lines.requested_table_count = 50;
  (void)table.getLines(lines);
  WLLineGraph graph(&node);
  (void)graph.getXY({0, end, 100}, {});
  WLSummary summary(&node);
  (void)summary.getXY({0, end, 100}, {});
  if (node.recordType == WLDataNode::kTypeWithStates) {
    WLStateGraph states(&node, nlohmann::json());
    (void)states.getTree(0, end);
    (void)states.getStates({0, end, 100}, {});
  }
  return 0;
}
