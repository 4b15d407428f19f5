// The tables' own answer text (writeLines) against the answer of getLines
// dumped by the writer: where a table writes its lines itself, the bytes must
// be the same; where it cannot vouch for a line, it must decline and leave
// the error to getLines.
#include <gtest/gtest.h>

#include "ExperimentFixture.hpp"
#include "experiments/DataBrokerRouter.hpp"
#include "experiments/GenericTable.hpp"
#include "experiments/MTBExperiment.hpp"
#include "experiments/MTBTable.hpp"
#include "tsp_server/models/TableLinesWriter.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;
const auto range = ostrand_test::tableWindow;

// writeLines appends to what `out` holds; a decline leaves it as it was.
bool writes(VSKTableProvider& table, const TableLinesRequest& request, std::string* text) {
  std::string out = "prefix";
  const bool wrote = table.writeLines(request, out);
  if (!wrote) {
    EXPECT_EQ(out, "prefix");
    return false;
  }
  EXPECT_EQ(out.rfind("prefix", 0), 0u);
  *text = out.substr(6);
  return true;
}

// Every window of the table, the edges and beyond them included, must be
// written and equal to the model's answer.
void expectSameTextEverywhere(VSKTableProvider& table, int64_t size) {
  const std::vector<TableLinesRequest> requests = {
      range(0, 0),         range(0, 1),          range(0, 1000),
      range(size - 1, 5),  range(size, 5),       range(size + 10, 5),
      range(-3, 2),        range(2, -1),         range(1, INT32_MAX),
      range(INT64_MAX, 3), range(size / 2, 3)};
  for (const auto& request : requests) {
    std::string text;
    ASSERT_TRUE(writes(table, request, &text))
        << "index " << request.requested_table_index << " count "
        << request.requested_table_count;
    EXPECT_EQ(text, writeTableLinesResponse(table.getLines(request)))
        << "index " << request.requested_table_index << " count "
        << request.requested_table_count;
  }
  for (int64_t i = 0; i < size; ++i) {
    std::string text;
    ASSERT_TRUE(writes(table, range(i, 2), &text));
    EXPECT_EQ(text, writeTableLinesResponse(table.getLines(range(i, 2)))) << "line " << i;
  }
}

// Runs and instructions with every kind of value a capture holds: escapes,
// UTF-8, padding, line numbers of each type, sequence numbers of each type,
// missing keys and an empty `first` (golden/mtb_mixed.json).
json mixedMtb() {
  return json::parse(ostrand_test::readFile(ostrand_test::experimentGolden("mtb_mixed.json")));
}

TEST(MtbWriteLines, SameBytesAsTheModelForEveryLineAndFlavour) {
  json doc = mixedMtb();
  for (bool expand : {false, true}) {
    for (bool reversed : {false, true}) {
      MTBTable table(&doc);
      table.expandRows = expand;
      table.reversed = reversed;
      table.setData(&doc);
      SCOPED_TRACE(::testing::Message() << "expand " << expand << " reversed " << reversed);
      ASSERT_EQ(table.lineCount(), expand ? 7u : 4u);
      expectSameTextEverywhere(table, static_cast<int64_t>(table.lineCount()));
    }
  }
}

TEST(MtbWriteLines, TheCaptureOfTheGoldenFilesAfterRefresh) {
  ostrand_test::TempDir dir;
  ostrand_test::writeFile(dir / "metadata",
                     R"({"typeId":"MTB","device":"Probe/M4","dataFile":"mtb_data.json"})");
  ostrand_test::writeFile(dir / "mtb_data.json",
                          ostrand_test::readFile(ostrand_test::experimentGolden("mtb_small.json")));
  DataBrokerRouter router;
  MTBExperiment experiment("M4_CoreTrace", &router);
  experiment.addTrace(VSKTrace("MTB", dir.path(), ""));
  experiment.open();
  expectSameTextEverywhere(*experiment.discontinuityTable, 4);
  experiment.refresh();
  expectSameTextEverywhere(*experiment.discontinuityTable, 6);
  expectSameTextEverywhere(*experiment.traceTable, 4);
}

TEST(MtbWriteLines, EmptyAndMissingDocumentsAnswerAnEmptyTable) {
  for (const char* text : {R"({})", R"({"data":[],"code":[]})", R"({"code":[]})", "[]"}) {
    json doc = json::parse(text);
    MTBTable table(&doc);
    std::string out;
    ASSERT_TRUE(table.writeLines(range(0, 200), out)) << text;
    EXPECT_EQ(out, writeTableLinesResponse(table.getLines(range(0, 200)))) << text;
  }
  MTBTable none(nullptr);
  std::string out;
  ASSERT_TRUE(none.writeLines(range(5, 200), out));
  EXPECT_EQ(out, writeTableLinesResponse(none.getLines(range(5, 200))));
}

// A document with one value made bad.
struct Spoiled {
  const char* name;
  void (*spoil)(json&);
};

// One bad value in a large table: the lines around it are still written,
// a range that holds it is declined and getLines reports the error.
TEST(MtbWriteLines, DeclinesOnlyTheRangesThatHoldABadLine) {
  const Spoiled cases[] = {
      {"seq of type string", [](json& d) { d["code"][2][0]["seq"] = "3"; }},
      {"src of type number", [](json& d) { d["code"][2][0]["src"] = 4; }},
      {"asm not UTF-8", [](json& d) { d["code"][2][0]["asm"] = "\xff"; }},
      {"instruction not an object", [](json& d) { d["code"][2][0] = json::array(); }},
      {"function of type number", [](json& d) { d["data"][2]["function"] = 1; }},
      {"last of type bool", [](json& d) { d["data"][2]["last"] = true; }},
      {"dir not UTF-8", [](json& d) { d["data"][2]["dir"] = "\xc3"; }},
      {"run not an object", [](json& d) { d["data"][2] = "run"; }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    json doc = json::parse(R"({"data":[{},{},{},{}],"code":[[{"seq":0}],[{"seq":1}],[{"seq":2}],[{"seq":3}]]})");
    c.spoil(doc);
    MTBTable table(&doc);
    table.expandRows = true;
    table.setData(&doc);
    std::string text;
    EXPECT_FALSE(writes(table, range(2, 1), &text));
    EXPECT_FALSE(writes(table, range(0, 200), &text));
    EXPECT_ANY_THROW(writeTableLinesResponse(table.getLines(range(0, 200))));
    for (const auto& clean : {range(0, 2), range(3, 1), range(4, 1)}) {
      ASSERT_TRUE(writes(table, clean, &text));
      EXPECT_EQ(text, writeTableLinesResponse(table.getLines(clean)));
    }
  }
}

TEST(MtbWriteLines, DataShorterThanCodeIsLeftToGetLines) {
  json doc = json::parse(R"({"data":[{}],"code":[[{"seq":0}],[{"seq":1}]]})");
  MTBTable table(&doc);
  std::string text;
  ASSERT_TRUE(writes(table, range(0, 1), &text));
  EXPECT_FALSE(writes(table, range(0, 2), &text));
  EXPECT_THROW(table.getLines(range(0, 2)), json::out_of_range);
}

// A refresh whose setData failed leaves a table over a document it did not
// write its text from; that text must not be served.
TEST(MtbWriteLines, ADocumentReplacedWithoutSetDataIsNotServedFromOldText) {
  json doc = json::parse(R"({"data":[{"function":"old"}],"code":[[{"seq":0}]]})");
  MTBTable table(&doc);
  std::string text;
  ASSERT_TRUE(writes(table, range(0, 1), &text));
  EXPECT_NE(text.find("old"), std::string::npos);

  doc = json::parse(R"({"data":[{"function":"new"}],"code":[[{"seq":0}]]})");
  EXPECT_FALSE(writes(table, range(0, 1), &text));
  doc = json::parse(R"({"data":[{"function":"new"}],"code":{"not":"an array"}})");
  EXPECT_FALSE(writes(table, range(0, 1), &text));
  EXPECT_THROW(table.getLines(range(0, 1)), json::type_error);

  doc = json::parse(R"({"data":[{"function":"new"}],"code":[[{"seq":0}]]})");
  table.setData(&doc);
  ASSERT_TRUE(writes(table, range(0, 1), &text));
  EXPECT_EQ(text, writeTableLinesResponse(table.getLines(range(0, 1))));
  EXPECT_NE(text.find("new"), std::string::npos);
}

// Cells with escapes, controls, UTF-8 beyond the basic plane, a null time,
// short and empty rows, a cell beyond the columns and a row of nulls.
json mixedTdf() {  // golden/tdf_mixed.json
  return json::parse(ostrand_test::readFile(ostrand_test::experimentGolden("tdf_mixed.json")));
}

TEST(GenericWriteLines, SameBytesAsTheModelForEveryLine) {
  json doc = mixedTdf();
  GenericTable table;
  table.setData(&doc);
  expectSameTextEverywhere(table, 6);
}

TEST(GenericWriteLines, DeclinesRangesWithABadRowOrCell) {
  const Spoiled cases[] = {
      {"number cell", [](json& d) { d["Rows"][2][1] = 30; }},
      {"row not an array", [](json& d) { d["Rows"][2] = "row"; }},
      {"cell not UTF-8", [](json& d) { d["Rows"][2][0] = "\xfe"; }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    json doc = mixedTdf();
    c.spoil(doc);
    GenericTable table;
    table.setData(&doc);
    std::string text;
    EXPECT_FALSE(writes(table, range(1, 3), &text));
    EXPECT_ANY_THROW(writeTableLinesResponse(table.getLines(range(1, 3))));
    ASSERT_TRUE(writes(table, range(3, 3), &text));
    EXPECT_EQ(text, writeTableLinesResponse(table.getLines(range(3, 3))));
  }
  // Without rows getLines answers the index as asked; that is its to say.
  json noRows = json::parse(R"({"Columns":[{"name":"A"}]})");
  GenericTable table;
  table.setData(&noRows);
  std::string text;
  EXPECT_FALSE(writes(table, range(7, 3), &text));
  GenericTable empty;
  EXPECT_FALSE(writes(empty, range(0, 3), &text));
}

}  // namespace
}  // namespace VSKTspServer
