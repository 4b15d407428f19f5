// The request models, read from the bodies in golden/requests.txt and
// written back: each line `TYPE BODY` is listed with what the model writes
// back, or the error the read (or the write) throws, and the listing is
// compared with golden/requests.expected. It shows the defaults of optional
// keys, every key read, wrong types (also for optional keys), missing
// required keys, saturating integers, and style values kept as their text.
#include "tsp_server/models/TspRequests.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>

#include "TestSupport.hpp"
#include "tsp_server/models/TspObjects.hpp"
#include "tsp_server/models/TspResponses.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;

template <typename T>
std::string readBack(const json& body) {
  return json(body.get<T>()).dump();
}

TEST(TspRequests, ReadAndWrittenBackAsTheGoldenListing) {
  const std::map<std::string, std::function<std::string(const json&)>> readers = {
      {"OpenTraceRequest", readBack<OpenTraceRequest>},
      {"ExperimentRequest", readBack<ExperimentRequest>},
      {"TimeRange", readBack<TimeRange>},
      {"TimeRangeBounds", [](const json& j) { return json(readTimeRangeBounds(j)).dump(); }},
      {"AnnotationsRequest", readBack<AnnotationsRequest>},
      {"TooltipRequest", readBack<TooltipRequest>},
      {"TableLinesRequest", readBack<TableLinesRequest>},
      {"StringRequest", readBack<StringRequest>},
      {"OutputElementStyle", readBack<OutputElementStyle>},
  };
  const std::string base =
      ostrand_test::sourcePath("tracemanager/tsp_server/models/tests/golden/requests");
  std::ifstream in(base + ".txt");
  ASSERT_TRUE(in) << base;
  std::string listing, line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    const std::string type = line.substr(0, line.find(' '));
    listing += "> " + line + "\n< ";
    try {
      listing += readers.at(type)(json::parse(line.substr(type.size() + 1)));
    } catch (const json::exception& e) {
      listing += std::string("error: ") + e.what();
    } catch (const std::invalid_argument& e) {
      listing += std::string("invalid_argument: ") + e.what();
    } catch (const std::out_of_range& e) {
      listing += std::string("out_of_range: ") + e.what();
    }
    listing += "\n";
  }
  EXPECT_TRUE(ostrand_test::matchesGolden(listing, base + ".expected"));
}

}  // namespace
}  // namespace VSKTspServer
