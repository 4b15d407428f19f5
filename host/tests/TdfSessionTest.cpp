// A saved run reopened as a TDF session through `ostrand shell --sim`, as a
// debug host drives it: the replies and events against a golden transcript,
// the decoded table on disk against a golden of its rows, and that table
// served by the trace server's TDF experiment with the firmware's symbols.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "ProgramRunner.hpp"
#include "experiments/DataBrokerRouter.hpp"
#include "experiments/TDFExperiment.hpp"

namespace {

using ostrand_test::ProgramRun;
using ostrand_test::readFile;
namespace fs = std::filesystem;

const std::string kGolden = std::string(OSTRAND_SOURCE_DIR) + "/host/tests/golden/";

using ostrand_test::replaceAll;

// One line per row: the cells, "-" where a cell has no value.
std::string rowsText(const Json::Value& table) {
  std::string out;
  for (const Json::Value& c : table["Columns"]) out += c["name"].asString() + " | ";
  out += "\n";
  for (const Json::Value& row : table["Rows"]) {
    for (const Json::Value& cell : row) out += (cell.isNull() ? std::string("-") : cell.asString()) + " | ";
    out += "\n";
  }
  return out;
}

void checkGolden(const std::string& name, const std::string& actual) {
  EXPECT_TRUE(ostrand_test::matchesGolden(actual, kGolden + name));
}

TEST(TdfSessionTest, SavedRunOpensAsATdfSessionWithTheFirmwaresSymbols) {
  ostrand_test::ProgramRunner runner;
  fs::create_directories(runner.dir() + "/runs");
  const std::string input = replaceAll(readFile(kGolden + "tdf_session.jsonl"), "<home>", runner.dir());
  ProgramRun r = runner.run("shell --sim", input);
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.err.find("saved the last run of mps2/CM4 as " + runner.dir() + "/runs/cm4.tdf"), std::string::npos)
      << r.err;
  checkGolden("tdf_session.expected", replaceAll(r.out, runner.dir(), "<home>"));

  const std::string dir = runner.dir() + "/.QX-trace/data/file-targets/file/cm4/TDF";
  Json::Value metadata, table;
  ASSERT_TRUE(Json::Reader().parse(readFile(dir + "/metadata"), metadata)) << dir;
  EXPECT_EQ(metadata["typeId"].asString(), "TDF");
  EXPECT_EQ(metadata["dataFile"].asString(), "tdf_data.json");
  ASSERT_TRUE(Json::Reader().parse(readFile(dir + "/tdf_data.json"), table));
  checkGolden("tdf_session_rows.expected", rowsText(table));

  // The trace server's experiment serves the table with the symbol columns.
  VSKTspServer::DataBrokerRouter router;
  VSKTspServer::TDFExperiment experiment("cm4_TDF", &router);
  experiment.addTrace(VSKTspServer::VSKTrace("TDF", dir, ""));
  experiment.open();
  const auto columns = experiment.table->getColumns("").model;
  std::vector<std::string> names;
  for (const auto& c : columns) names.push_back(c.name);
  for (const char* name : {"Program Address", "Trace Status", "Function", "File", "Dir"}) {
    EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
  }
  VSKTspServer::TableLinesRequest all;
  all.requested_table_count = 0x7fffffff;
  const auto lines = experiment.table->getLines(all).model;
  EXPECT_EQ(lines.size, static_cast<int64_t>(table["Rows"].size()));
  const size_t function = std::find(names.begin(), names.end(), "Function") - names.begin();
  bool sawMain = false, sawHandler = false;
  for (const auto& line : lines.lines) {
    sawMain = sawMain || line.cells[function].content == "main";
    sawHandler = sawHandler || line.cells[function].content == "Reset_Handler";
  }
  EXPECT_TRUE(sawMain);
  EXPECT_TRUE(sawHandler);
}

// `gen tdf` saves a run the same way as the shell and says where, and how
// to open it.
TEST(TdfSessionTest, GenTdfSavesTheRunTheShellSavesAndSaysHowToOpenIt) {
  ostrand_test::ProgramRunner runner;
  ProgramRun gen = runner.run("gen tdf --data '" + runner.dir() + "' --cpu mps2/CM4 --instructions 400");
  ASSERT_EQ(gen.exitCode, 0) << gen.err;
  const std::string file = runner.dir() + "/.QX-trace/recordings/CM4.tdf";
  EXPECT_EQ(gen.out, file + "\n");
  EXPECT_NE(gen.err.find("cloudTrace.configureTDFSession"), std::string::npos) << gen.err;
  // The same run as the shell's golden session: the same recording bytes.
  ProgramRun shell = runner.run("shell --sim", ":connect mps2/CM4\n:run mps2/CM4 400\n:save mps2/CM4 " + runner.dir() + "/b.tdf\n");
  ASSERT_EQ(shell.exitCode, 0) << shell.err;
  EXPECT_EQ(readFile(file), readFile(runner.dir() + "/b.tdf"));

  ProgramRun bad = runner.run("gen tdf --cpu NOPE --data '" + runner.dir() + "'");
  EXPECT_EQ(bad.exitCode, 1);
  EXPECT_NE(bad.err.find("No CPU 'NOPE'"), std::string::npos) << bad.err;
  EXPECT_EQ(runner.run("gen tdf --instructions lots").exitCode, 2);
}

}  // namespace
