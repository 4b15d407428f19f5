// Fuzz target: a request body as the protocol routes read it, and the
// request guard's view of its headers. Parsing may reject the body (the
// route then answers 500 or 400); it may not crash, hang or read out of
// bounds, and numbers must never wrap.
#include <cstdint>
#include <limits>
#include <string>

#include <nlohmann/json.hpp>

#include "tsp_server/RequestGuard.hpp"
#include "tsp_server/TspApi.hpp"
#include "tsp_server/models/TspRequests.hpp"

namespace {

using nlohmann::json;
using namespace VSKTspServer;

template <typename Model>
void readAs(const json& document) {
  try {
    (void)document.get<Model>();
  } catch (const json::exception&) {
  }
}

void readEveryModel(const json& body, bool hasMinus) {
  readAs<OpenTraceRequest>(body);
  readAs<ExperimentRequest>(body);
  readAs<StringRequest>(body);
  readAs<TooltipRequest>(body);
  readAs<AnnotationsRequest>(body);
  readAs<TimeRange>(body);
  try {
    const auto lines = body.get<TableLinesRequest>();
    // Saturated, never wrapped: a negative index comes only from a negative
    // number in the text.
    if (lines.requested_table_index < 0 && !hasMinus) std::abort();
  } catch (const json::exception&) {
  }
  try {
    (void)readTimeRangeBounds(body.at("requested_timerange"));
  } catch (const json::exception&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const bool hasMinus = text.find('-') != std::string::npos;
  for (bool unwrap : {false, true}) {
    try {
      const json body = TspApi::parseBody(text, unwrap);
      readEveryModel(body, hasMinus);
      if (body.is_object() && body.contains("parameters")) readEveryModel(body["parameters"], hasMinus);
    } catch (const json::exception&) {
    }
  }
  // The same bytes as header values: the guard must judge, not crash.
  const size_t cut = text.find('\n');
  RequestFacts facts{"POST", "/stop", text.substr(0, cut),
                     cut == std::string::npos ? "" : text.substr(cut + 1), text, text};
  (void)judgeRequest(facts, 1239);
  return 0;
}
