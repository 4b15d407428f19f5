#include "tsp_server/models/TableLinesWriter.hpp"

#include <gtest/gtest.h>

namespace VSKTspServer {
namespace {

TableLinesResponse responseWith(std::vector<std::string> contents) {
  TableLinesResponse response;
  response.status = "COMPLETED";
  response.model.size = 1'000'000;
  response.model.lowIndex = 17;
  response.model.columnIds = {0, 1, 2};
  TableLine line;
  line.index = 17;
  for (auto& text : contents) line.cells.push_back({std::move(text), 0});
  response.model.lines.push_back(line);
  line.index = -5;  // negative numbers must keep their sign
  line.tags = 3;
  line.cells.back().tags = 7;
  response.model.lines.push_back(line);
  return response;
}

// The direct writer must give exactly the bytes of the model's own dump, for
// every kind of text a decoder can put into a cell.
TEST(TableLinesWriterTest, MatchesTheModelDumpByteForByte) {
  const std::vector<std::vector<std::string>> cases = {
      {"0", "=>", "08000130"},
      {"", "", ""},
      {"say \"hi\"", "back\\slash", "tab\there"},
      {"line\nfeed\r", std::string("nul\0byte", 8), "\x01\x1f\x7f"},
      {"\xc3\xa9t\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80"},
      {"  leading", "trailing  ", "/"},
  };
  for (const auto& contents : cases) {
    const TableLinesResponse response = responseWith(contents);
    EXPECT_EQ(writeTableLinesResponse(response), nlohmann::json(response).dump());
  }
  // An empty table keeps every key (see the models' golden listing).
  TableLinesResponse empty;
  empty.status = "COMPLETED";
  EXPECT_EQ(writeTableLinesResponse(empty), nlohmann::json(empty).dump());
}

TEST(TableLinesWriterTest, InvalidUtf8ThrowsLikeTheModelDump) {
  const TableLinesResponse response = responseWith({"ok", "\xff\xfe", "ok"});
  EXPECT_THROW(nlohmann::json(response).dump(), nlohmann::json::type_error);
  EXPECT_THROW(writeTableLinesResponse(response), nlohmann::json::type_error);
}

}  // namespace
}  // namespace VSKTspServer
