// An ETB capture through `ostrand shell --sim` as a debug host drives it,
// with the session kept open while the test reads the module's trace
// server as the viewer would: the transcript, the ETB table's rows and the
// run rows of etb_data.json against golden files, and the functions and
// lines of both against the firmware's debug information read by
// arm-none-eabi-addr2line on its own.
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "ProgramRunner.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

using ostrand_test::freeLoopbackPort;

using json = nlohmann::json;
using ostrand_test::matchesGolden;
using ostrand_test::readFile;

const std::string kGolden = std::string(OSTRAND_SOURCE_DIR) + "/host/tests/golden/";
const std::string kFirmware = std::string(OSTRAND_SOURCE_DIR) + "/testdata/firmware/run_mps2.elf";

// How many rows of the table and of the run list the golden files hold.
const size_t kGoldenRows = 48;


// What the shell printed, with what differs from run to run made fixed:
// the temporary home and the operation handle of the enable reply.
std::string normalised(const std::string& output, const std::string& home) {
  const std::string text = ostrand_test::replaceAll(output, home, "<home>");
  static const std::regex handle(R"re(\{"data":[0-9]+,"response":2\})re");
  return std::regex_replace(text, handle, R"({"data":"<handle>","response":2})");
}

// Function, and file:line, that addr2line gives for an address; empty
// when the tool is not there.
std::pair<std::string, std::string> addr2line(const std::string& hexAddress) {
  std::string command =
      "arm-none-eabi-addr2line -f -e '" + kFirmware + "' 0x" + hexAddress + " 2>/dev/null";
  std::istringstream lines(ostrand_test::commandOutput(command));
  std::string function, place;
  std::getline(lines, function);
  std::getline(lines, place);
  return {function, place};
}

std::string lineOf(const std::string& place) {
  std::string tail = place.substr(place.rfind(':') + 1);
  return tail.substr(0, tail.find(' '));
}

// The shell, fed through a pipe so the session stays open while the test
// looks at the trace server.
class ShellSession {
 public:
  ShellSession(const std::string& home, int port) : out_(home + "/out") {
    std::string command = "USERPROFILE='" + home + "' OSTRAND_TSP_PORT=" + std::to_string(port) +
                          " '" + OSTRAND_PROGRAM + "' shell --sim >'" + out_ + "' 2>'" + home +
                          "/err'";
    pipe_ = ::popen(command.c_str(), "w");
  }
  ~ShellSession() { close(); }
  bool open() const { return pipe_ != nullptr; }
  void send(const std::string& text) {
    std::fputs(text.c_str(), pipe_);
    std::fflush(pipe_);
  }
  // Waits until the output holds `text`; false after `seconds`.
  bool waitFor(const std::string& text, int seconds) {
    for (int i = 0; i < seconds * 20; ++i) {
      if (readFile(out_).find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }
  int close() {
    if (pipe_ == nullptr) return exitCode_;
    int status = ::pclose(pipe_);
    pipe_ = nullptr;
    exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return exitCode_;
  }
  std::string output() const { return readFile(out_); }

 private:
  std::string out_;
  FILE* pipe_ = nullptr;
  int exitCode_ = -1;
};

// The lines of the ETB experiment's table as the viewer reads them, one
// text line per row: the cells joined by " | ".
std::vector<std::vector<std::string>> etbTableRows(httplib::Client& client) {
  // The viewer's live experiment: the server scans the capture directories.
  auto live =
      client.Post("/tsp/api/experiments", R"({"parameters":{"name":"LiveTarget","traces":[]}})",
                  "application/json");
  if (!live || live->status != 200) {
    ADD_FAILURE() << "live experiment: " << (live ? live->status : -1) << " "
                  << httplib::to_string(live.error());
    return {};
  }
  auto listed = client.Get("/tsp/api/experiments");
  if (!listed || listed->status != 200) return {};
  std::string uuid;
  for (const auto& experiment : json::parse(listed->body)) {
    if (experiment.dump().find("/mps2/CM4/ETB") != std::string::npos) uuid = experiment.at("UUID");
  }
  if (uuid.empty()) {
    ADD_FAILURE() << "no ETB experiment in " << listed->body;
    return {};
  }
  const std::string base = "/tsp/api/experiments/" + uuid;
  // Opening made the tables; a refresh fills them from the records.
  client.Post(base + "/refresh", "{}", "application/json");
  auto outputs = client.Get(base + "/outputs");
  if (!outputs || outputs->status != 200) {
    ADD_FAILURE() << "no outputs";
    return {};
  }
  std::string table;
  for (const auto& output : json::parse(outputs->body)) {
    if (output.value("type", "") == "TABLE") table = output.at("id");
  }
  auto lines =
      client.Post(base + "/outputs/table/" + table + "/lines",
                  R"({"parameters":{"requested_table_index":0,"requested_table_count":100000}})",
                  "application/json");
  if (!lines || lines->status != 200) {
    ADD_FAILURE() << "no lines: " << (lines ? lines->body : httplib::to_string(lines.error()));
    return {};
  }
  std::vector<std::vector<std::string>> rows;
  const json model = json::parse(lines->body)["model"];
  for (const auto& line : model["lines"]) {
    std::vector<std::string> cells;
    for (const auto& cell : line["cells"]) cells.push_back(cell.value("content", ""));
    rows.push_back(cells);
  }
  return rows;
}

TEST(EtbCaptureTest, ShellTranscriptTableAndDataFileAgreeWithTheFirmware) {
  ostrand_test::TempDir home("ostrand-etb");
  const int port = freeLoopbackPort();
  ShellSession shell(home.path(), port);
  ASSERT_TRUE(shell.open());
  shell.send(readFile(kGolden + "etb_capture.jsonl"));
  ASSERT_TRUE(shell.waitFor("\"showStatusMsg\\\":false", 60)) << shell.output();

  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(30, 0);
  std::vector<std::vector<std::string>> rows = etbTableRows(client);

  shell.send("{\"command\":\"cloudTrace.stopSession\",\"id\":3}\n");
  EXPECT_EQ(shell.close(), 0) << readFile(home / "err");
  EXPECT_TRUE(
      matchesGolden(normalised(shell.output(), home.path()), kGolden + "etb_capture.expected"));

  // The table: Seq., PC, Opcode, Function, File, Line, Source, Asm, Dir,
  // Cycles. Only instructions of the range are traced, each with its
  // function, line and instruction in words. The golden file holds the
  // first rows (the source text depends on where the program runs).
  ASSERT_FALSE(rows.empty());
  const uint32_t rangeStart = ostrand_test::nmAddress(kFirmware, "main"),
                 rangeEnd = ostrand_test::nmAddress(kFirmware, "crc_update");
  std::ostringstream table;
  table << "rows: " << rows.size() << "\n";
  std::map<std::string, std::pair<std::string, std::string>> checked;
  for (size_t i = 0; i < rows.size(); ++i) {
    const auto& cells = rows[i];
    ASSERT_EQ(cells.size(), 10u);
    if (i < kGoldenRows) {
      table << cells[0] << " | " << cells[1] << " | " << cells[2] << " | " << cells[3] << " | "
            << cells[4] << " | " << cells[5] << " | " << cells[7] << " | " << cells[9] << "\n";
    }
    EXPECT_FALSE(cells[3].empty() || cells[3] == "n/a") << cells[1];
    EXPECT_FALSE(cells[5].empty()) << cells[1];
    EXPECT_FALSE(cells[7].empty()) << cells[1];
    if (rangeEnd != 0) {
      const auto pc = static_cast<uint32_t>(std::stoul(cells[1], nullptr, 16));
      EXPECT_TRUE(pc >= rangeStart && pc <= rangeEnd) << cells[1] << " is outside the range";
    }
    if (checked.count(cells[1]) == 0) checked[cells[1]] = {cells[3], cells[5]};
  }
  EXPECT_TRUE(matchesGolden(table.str(), kGolden + "etb_capture_table.expected"));

  // The run rows of etb_data.json: where each run of the range began and
  // what it came from.
  const std::string dir = home.path() + "/.QX-trace/data/live-targets/mps2/CM4/ETB";
  Json::Value metadata, data;
  ASSERT_TRUE(Json::Reader().parse(readFile(dir + "/metadata"), metadata)) << dir;
  EXPECT_EQ(metadata["typeId"].asString(), "ETB");
  EXPECT_EQ(metadata["dataFile"].asString(), "etb_data.json");
  ASSERT_TRUE(Json::Reader().parse(readFile(dir + "/etb_data.json"), data)) << dir;
  ASSERT_TRUE(data["data"].isArray());
  ASSERT_FALSE(data["data"].empty());
  std::ostringstream runs;
  runs << "runs: " << data["data"].size() << "\n";
  for (const auto& run : data["data"]) {
    if (run["seq"].asUInt() >= kGoldenRows) break;
    runs << run["seq"].asUInt() << " | " << run["first"].asString() << " | "
         << run["last"].asString() << " | " << run["function"].asString() << " | "
         << run["file"].asString() << "\n";
  }
  EXPECT_TRUE(matchesGolden(runs.str(), kGolden + "etb_capture_runs.expected"));

  // Functions and lines against the firmware's debug information.
  auto [probe, ignored] = addr2line("bc");
  if (probe.empty()) GTEST_SKIP() << "arm-none-eabi-addr2line is not installed";
  for (const auto& [address, seen] : checked) {
    auto [function, place] = addr2line(address);
    EXPECT_EQ(seen.first, function) << address;
    EXPECT_EQ(seen.second, lineOf(place)) << address;
  }
  for (const auto& run : data["data"]) {
    const std::string first = run["first"].asString();
    if (first.empty()) continue;
    auto [function, place] = addr2line(first);
    EXPECT_EQ(run["function"].asString(), function) << first;
    EXPECT_NE(place.find(run["file"].asString()), std::string::npos) << first;
  }
}

}  // namespace
