// `ostrand` as a user, a script or a debug host runs it. First the runs a
// user makes from the repository's root, as one transcript: golden/program.txt
// holds the arguments of each run, golden/program.expected what each printed
// and its exit status. Then `ostrand shell` (and `gen tdf`), one golden
// transcript per case: golden/<name>.jsonl is the input (<home> standing for
// the test's home directory, there and in the arguments), golden/<name>.expected
// what the shell printed, then its standard error and exit status when there
// are any. The home and the build tree's paths are made fixed. A case may
// prepare the home first; where its input has a "# --- live" line, it reads
// the module's trace server there while the session is still open; its check
// reads what the run left on disk and may add to the transcript (the head of
// a file it wrote, rows the server gave). The messages and exit codes of bad
// command lines, modules that cannot be loaded and the help texts are in
// the program's transcript.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "LoopbackPort.hpp"
#include "TestSupport.hpp"
#include "experiments/DataBrokerRouter.hpp"
#include "experiments/TDFExperiment.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using ostrand_test::freeLoopbackPort;
using ostrand_test::readFile;
using ostrand_test::replaceAll;

const std::string kGolden = std::string(OSTRAND_SOURCE_DIR) + "/host/tests/golden/";
const std::string kBase = std::string(OSTRAND_BUILD_DIR) + "/vsk_base";
const std::string kLive = "# --- live\n";
const std::string kFirmware = std::string(OSTRAND_SOURCE_DIR) + "/testdata/firmware/run_mps2.elf";

// The `ostrand` program of this build, run as a user would with a temporary
// home (USERPROFILE), so nothing is written into a real one.

struct ProgramRun {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// The program started with its standard input on a pipe, so that a test can
// act while it runs; its output goes to files in `home`. `args` is shell
// text after the program name, `env` extra "NAME=value" text before it.
class RunningProgram {
 public:
  RunningProgram(const std::string& home, const std::string& args, const std::string& env = "",
                 const std::string& workingDir = "")
      : home_(home) {
    std::signal(SIGPIPE, SIG_IGN);  // a program that ends before its input must not end the test
    const std::string command = (workingDir.empty() ? "" : "cd '" + workingDir + "' && ") + "USERPROFILE='" +
                                home + "' " + env + " '" + OSTRAND_PROGRAM + "' " + args + " >'" + home +
                                "/out' 2>'" + home + "/err'";
    pipe_ = ::popen(command.c_str(), "w");
  }
  ~RunningProgram() { finish(); }
  void send(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), pipe_);
    std::fflush(pipe_);
  }
  // Waits until the standard output holds `text`; false after `seconds`.
  bool waitFor(const std::string& text, int seconds) const {
    for (int i = 0; i < seconds * 20; ++i) {
      if (readFile(home_ + "/out").find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }
  // Ends the input and waits for the program to end.
  ProgramRun finish() {
    if (pipe_ != nullptr) {
      const int status = ::pclose(pipe_);
      pipe_ = nullptr;
      run_ = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(home_ + "/out"), readFile(home_ + "/err")};
    }
    return run_;
  }

 private:
  std::string home_;
  FILE* pipe_ = nullptr;
  ProgramRun run_;
};

// Runs the program to its end in a temporary home of its own.
class ProgramRunner {
 public:
  ProgramRun run(const std::string& args, const std::string& input = "", const std::string& workingDir = "",
                 const std::string& env = "") {
    RunningProgram program(dir(), args, env, workingDir);
    program.send(input);
    return program.finish();
  }
  const std::string& dir() const { return home_.path(); }

 private:
  ostrand_test::TempDir home_{"ostrand-prog"};
};

void quote(std::ostringstream& out, const std::string& text, const char* mark) {
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) out << mark << line << "\n";
}

TEST(ProgramTranscript, LookupDisasmAndTheProgramItself) {
  const std::string golden = ostrand_test::sourcePath("host/tests/golden/program");
  std::ifstream in(golden + ".txt");
  ASSERT_TRUE(in);
  ProgramRunner runner;
  std::ostringstream transcript;
  std::string args;
  while (std::getline(in, args)) {
    if (args.empty() || args[0] == '#') continue;
    const ProgramRun run = runner.run(args, "", OSTRAND_SOURCE_DIR);
    transcript << "$ ostrand " << args << "\n";
    quote(transcript, run.out, "| ");
    quote(transcript, run.err, "! ");
    transcript << "= exit " << run.exitCode << "\n";
  }
  EXPECT_TRUE(ostrand_test::matchesGolden(transcript.str(), golden + ".expected"));
}

// What a case's hooks see: the home, the trace server's port, and the rows
// of the table the server gave while the session was open.
struct CaseRun {
  std::string home;
  int port = 0;
  std::vector<std::vector<std::string>> rows;
};

Json::Value readJson(const std::string& path) {
  Json::Value value;
  EXPECT_TRUE(Json::Reader().parse(readFile(path), value)) << path;
  return value;
}

// The power capture's directory after the session (its files and the
// probe's empty scratch directory are in the transcript): the module's
// metadata beside the stream the probe wrote; the trace server over that
// data tree opens it with every record.
void checkPowerCapture(CaseRun& run, std::string&) {
  const std::string& home = run.home;
  const std::string dir = home + "/.QX-trace/data/live-targets/microbit/CM0P/Wattline";
  const Json::Value metadata = readJson(dir + "/metadata");
  EXPECT_EQ(metadata["typeId"].asString(), "WL+");
  EXPECT_EQ(metadata["device"].asString(), "microbit/CM0P");
  EXPECT_EQ(readJson(dir + "/metadataSup.json")["JState"]["name"].asString(), "M0PLUS_STATES");
  const uintmax_t streamBytes = fs::file_size(dir + "/WLData.bin");
  EXPECT_EQ(streamBytes % 26, 0u);  // records of type 7; the transcript lists the files

  const int port = freeLoopbackPort();
  const std::string serve = "timeout 60 '" + std::string(OSTRAND_PROGRAM) + "' serve --data '" + home +
                            "' --port " + std::to_string(port) + " >'" + home + "/serve.log' 2>&1 &";
  ASSERT_EQ(std::system(serve.c_str()), 0);
  httplib::Client client("127.0.0.1", port);
  json experiments = json::array();
  for (int i = 0; i < 200 && experiments.empty(); ++i) {
    if (auto listed = client.Get("/tsp/api/experiments"); listed && listed->status == 200) experiments = json::parse(listed->body);
    if (experiments.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  client.Get("/stop");
  bool found = false;
  for (const json& e : experiments) {
    if (e["traces"][0]["path"].get<std::string>().find("microbit/CM0P/Wattline") == std::string::npos) continue;
    found = true;
    EXPECT_EQ(e["nbEvents"].get<uint64_t>(), streamBytes / 26 - 1) << e;  // all but the lead-in
    EXPECT_EQ(e["indexingStatus"], "COMPLETED") << e;
  }
  EXPECT_TRUE(found) << experiments << readFile(home + "/serve.log");
}

// The MTB buffer decoded at the halt holds the program's own work, not a
// fault handler: the newest runs lie in the work loop and the filter.
void checkMtbCapture(CaseRun& run, std::string&) {
  const std::string& home = run.home;
  const std::string dir = home + "/.QX-trace/data/live-targets/microbit/CM0P/MTB";
  const Json::Value metadata = readJson(dir + "/metadata");
  EXPECT_EQ(metadata["typeId"].asString(), "MTB");
  EXPECT_EQ(metadata["dataFile"].asString(), "mtb_data.json");
  const std::string data = readFile(dir + "/mtb_data.json");
  EXPECT_NE(data.find("\"function\" : \"process_block\""), std::string::npos) << data;
  EXPECT_NE(data.find("\"file\" : \"work.c\""), std::string::npos) << data;
  EXPECT_EQ(data.find("Default_Handler"), std::string::npos);
  EXPECT_EQ(data.find("HardFault_Handler"), std::string::npos);
}

// The exported CSV's head names the firmware's functions, files and
// instructions: it goes into the transcript.
void csvHead(CaseRun& run, std::string& transcript) {
  const std::string csv = readFile(run.home + "/mtb.csv");
  size_t at = 0;
  for (int line = 0; line < 8 && at < csv.size(); ++line) at = std::min(csv.find('\n', at), csv.size() - 1) + 1;
  transcript += "--- mtb.csv\n" + csv.substr(0, at);
}

// The TDF session's decoded table on disk, one line per row ("-" where a
// cell has no value), and the trace server's TDF experiment serving it with
// the firmware's symbols.
void checkTdfTable(CaseRun& run, std::string&) {
  const std::string dir = run.home + "/.QX-trace/data/file-targets/file/cm4/TDF";
  const Json::Value metadata = readJson(dir + "/metadata"), table = readJson(dir + "/tdf_data.json");
  EXPECT_EQ(metadata["typeId"].asString(), "TDF");
  EXPECT_EQ(metadata["dataFile"].asString(), "tdf_data.json");
  std::string rows;
  for (const Json::Value& c : table["Columns"]) rows += c["name"].asString() + " | ";
  rows += "\n";
  for (const Json::Value& row : table["Rows"]) {
    for (const Json::Value& cell : row) rows += (cell.isNull() ? std::string("-") : cell.asString()) + " | ";
    rows += "\n";
  }
  EXPECT_TRUE(ostrand_test::matchesGolden(rows, kGolden + "tdf_session_rows.expected"));

  VSKTspServer::DataBrokerRouter router;
  VSKTspServer::TDFExperiment experiment("cm4_TDF", &router);
  experiment.addTrace(VSKTspServer::VSKTrace("TDF", dir, ""));
  experiment.open();
  std::vector<std::string> names;
  for (const auto& c : experiment.table->getColumns("").model) names.push_back(c.name);
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

// How many rows of the table and of the run list the transcript holds.
const size_t kGoldenRows = 48;


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

// The JSON body of a trace server answer; null, with the failure, when the
// request did not succeed.
json body(const httplib::Result& r, const std::string& what) {
  if (r && r->status == 200) return json::parse(r->body);
  ADD_FAILURE() << what << ": " << (r ? std::to_string(r->status) + " " + r->body : httplib::to_string(r.error()));
  return json();
}

// The ETB capture of the Cortex-M4's range from main to crc_update: the
// lines of the table as the viewer reads them while the session is open,
// each as its cells.
void readEtbTable(RunningProgram& shell, CaseRun& run) {
  ASSERT_TRUE(shell.waitFor("\"showStatusMsg\\\":false", 60)) << readFile(run.home + "/out");
  httplib::Client client("127.0.0.1", run.port);
  client.set_read_timeout(30, 0);
  // The viewer's live experiment: the server scans the capture directories.
  body(client.Post("/tsp/api/experiments", R"({"parameters":{"name":"LiveTarget","traces":[]}})", "application/json"),
       "live experiment");
  const json experiments = body(client.Get("/tsp/api/experiments"), "experiments");
  std::string uuid;
  for (const auto& experiment : experiments) {
    if (experiment.dump().find("/mps2/CM4/ETB") != std::string::npos) uuid = experiment.at("UUID");
  }
  if (uuid.empty()) {
    ADD_FAILURE() << "no ETB experiment in " << experiments;
    return;
  }
  const std::string base = "/tsp/api/experiments/" + uuid;
  // Opening made the tables; a refresh fills them from the records.
  client.Post(base + "/refresh", "{}", "application/json");
  std::string table;
  for (const auto& output : body(client.Get(base + "/outputs"), "outputs")) {
    if (output.value("type", "") == "TABLE") table = output.at("id");
  }
  json lines = body(client.Post(base + "/outputs/table/" + table + "/lines",
                                R"({"parameters":{"requested_table_index":0,"requested_table_count":100000}})",
                                "application/json"),
                    "lines");
  for (const auto& line : lines["model"]["lines"]) {
    std::vector<std::string> cells;
    for (const auto& cell : line["cells"]) cells.push_back(cell.value("content", ""));
    run.rows.push_back(cells);
  }
}

// The table: Seq., PC, Opcode, Function, File, Line, Source, Asm, Dir,
// Cycles. Only instructions of the range are traced, each with its function,
// line and instruction in words; the first rows go into the transcript (the
// source text depends on where the program runs). Then the run rows of
// etb_data.json: where each run of the range began and what it came from.
// Functions and lines of both agree with the firmware's debug information
// as arm-none-eabi-addr2line reads it on its own.
void checkEtbCapture(CaseRun& run, std::string& transcript) {
  static const std::regex handle(R"re(\{"data":[0-9]+,"response":2\})re");
  transcript = std::regex_replace(transcript, handle, R"({"data":"<handle>","response":2})");
  const auto& rows = run.rows;
  ASSERT_FALSE(rows.empty());
  const uint32_t rangeStart = ostrand_test::nmAddress(kFirmware, "main"),
                 rangeEnd = ostrand_test::nmAddress(kFirmware, "crc_update");
  std::ostringstream table;
  table << "--- table rows: " << rows.size() << "\n";
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
  const std::string dir = run.home + "/.QX-trace/data/live-targets/mps2/CM4/ETB";
  const Json::Value metadata = readJson(dir + "/metadata"), data = readJson(dir + "/etb_data.json");
  EXPECT_EQ(metadata["typeId"].asString(), "ETB");
  EXPECT_EQ(metadata["dataFile"].asString(), "etb_data.json");
  ASSERT_TRUE(data["data"].isArray());
  ASSERT_FALSE(data["data"].empty());
  table << "--- runs: " << data["data"].size() << "\n";
  for (const auto& r : data["data"]) {
    if (r["seq"].asUInt() >= kGoldenRows) break;
    table << r["seq"].asUInt() << " | " << r["first"].asString() << " | " << r["last"].asString() << " | "
          << r["function"].asString() << " | " << r["file"].asString() << "\n";
  }
  transcript += table.str();

  auto [probe, ignored] = addr2line("bc");
  if (probe.empty()) GTEST_SKIP() << "arm-none-eabi-addr2line is not installed";
  for (const auto& [address, seen] : checked) {
    auto [function, place] = addr2line(address);
    EXPECT_EQ(seen.first, function) << address;
    EXPECT_EQ(seen.second, lineOf(place)) << address;
  }
  for (const auto& r : data["data"]) {
    const std::string first = r["first"].asString();
    if (first.empty()) continue;
    auto [function, place] = addr2line(first);
    EXPECT_EQ(r["function"].asString(), function) << first;
    EXPECT_NE(place.find(r["file"].asString()), std::string::npos) << first;
  }
}

// `gen tdf` saved the run the shell saves: the same recording bytes.
void sameRecordingAsTheShell(CaseRun& run, std::string&) {
  ProgramRunner runner;
  const ProgramRun shell =
      runner.run("shell --sim", ":connect mps2/CM4\n:run mps2/CM4 400\n:save mps2/CM4 " + runner.dir() + "/b.tdf\n");
  ASSERT_EQ(shell.exitCode, 0) << shell.err;
  EXPECT_EQ(readFile(run.home + "/.QX-trace/recordings/CM4.tdf"), readFile(runner.dir() + "/b.tdf"));
}

// A copy of the build tree's module and tool libraries without one that
// the module requires.
void treeWithoutOneLibrary(const std::string& home) {
  fs::create_directories(home + "/tree/vsk_base");
  for (const char* part : {"lib", "emulation", "ProbeHost"}) {
    fs::copy(kBase + "/" + part, home + "/tree/vsk_base/" + part, fs::copy_options::recursive);
  }
  fs::remove(home + "/tree/vsk_base/emulation/analysis/bin/libXEVProperties.so");
}

void brokenScenario(const std::string& home) { ostrand_test::writeFile(home + "/broken.json", R"({"name":"x"})"); }

// The JSON traffic log and the module's own log, both switched on by
// environment variables of the host process.
void checkLogs(CaseRun& run, std::string&) {
  const std::string log = readFile(run.home + "/traffic.log");
  EXPECT_NE(log.find(" -> {\"command\":\"cloudTrace.stopSession\",\"id\":3}\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" <- {\"response\":3}\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" -> ~Translator()\n"), std::string::npos) << log;
  bool found = false;
  for (const auto& entry : fs::directory_iterator(run.home + "/.QX-trace")) {
    if (entry.path().filename().string().rfind("qx_trace_log_", 0) != 0) continue;
    found = true;
    EXPECT_NE(readFile(entry.path()).find("Logger : trace user settings directory is "), std::string::npos);
  }
  EXPECT_TRUE(found) << "no qx_trace_log_*.txt in " << run.home << "/.QX-trace";
}

struct Transcript {
  const char* name;
  const char* args;
  void (*check)(CaseRun& run, std::string& transcript) = nullptr;
  void (*prepare)(const std::string& home) = nullptr;
  void (*live)(RunningProgram& shell, CaseRun& run) = nullptr;
  const char* env = "";  // besides the trace server's port
};
// Names the case in test listings (ctest shows the parameter).
void PrintTo(const Transcript& t, std::ostream* os) { *os << t.name; }

class ShellTranscript : public ::testing::TestWithParam<Transcript> {};

TEST_P(ShellTranscript, MatchesTheGoldenFile) {
  const Transcript& t = GetParam();
  const ostrand_test::TempDir home("ostrand-shell");
  CaseRun run{home.path(), freeLoopbackPort(), {}};
  if (t.prepare != nullptr) t.prepare(run.home);
  const std::string input = replaceAll(readFile(kGolden + t.name + ".jsonl"), "<home>", run.home);
  const size_t live = input.find(kLive);
  RunningProgram shell(run.home, replaceAll(t.args, "<home>", run.home),
                      "OSTRAND_TSP_PORT=" + std::to_string(run.port) + " " + replaceAll(t.env, "<home>", run.home));
  shell.send(input.substr(0, live));
  if (live != std::string::npos) {
    t.live(shell, run);
    shell.send(input.substr(live));
  }
  const ProgramRun r = shell.finish();
  std::string transcript = r.out;
  if (!r.err.empty()) transcript += "--- stderr\n" + r.err;
  if (r.exitCode != 0) transcript += "--- exit " + std::to_string(r.exitCode) + "\n";
  if (t.check != nullptr) t.check(run, transcript);
  transcript = replaceAll(replaceAll(transcript, run.home, "<home>"), kBase, "<base>");
  EXPECT_TRUE(ostrand_test::matchesGolden(transcript, kGolden + t.name + ".expected"));
}

INSTANTIATE_TEST_SUITE_P(
    Shell, ShellTranscript,
    ::testing::Values(
        // The module alone: every command answered or refused, bad lines named.
        Transcript{"session", "shell"}, Transcript{"shell_bad_lines", "shell --wait 5"},
        Transcript{"shell_logs", "shell", checkLogs, nullptr, nullptr,
                   "OSTRAND_JSON_LOG='<home>/traffic.log' QX_TRACE_LOGGING=1"},
        // The simulated tool libraries without and with a debug session.
        Transcript{"sim_no_session", "shell"}, Transcript{"sim_default", "shell --sim"},
        Transcript{"sim_needs_sim", "shell"}, Transcript{"sim_host_line_failures", "shell --sim"},
        Transcript{"sim_no_tools", "shell --module '<home>/tree/vsk_base/lib/libOstrand.so'", nullptr,
                   treeWithoutOneLibrary},
        Transcript{"sim_broken_scenario", "shell --sim '<home>/broken.json'", nullptr, brokenScenario},
        // Captures: power, the MTB buffer, the scripting export, a TDF session, ETB.
        Transcript{"power_capture", "shell --sim", checkPowerCapture},
        Transcript{"mtb_capture", "shell --sim", checkMtbCapture},
        Transcript{"scripting_export", "shell --sim", csvHead},
        Transcript{"tdf_session", "shell --sim", checkTdfTable},
        Transcript{"etb_capture", "shell --sim", checkEtbCapture, nullptr, readEtbTable},
        // A NUL byte ends the shell with 4. `gen tdf` says where it saved the run and how to open it.
        Transcript{"shell_nul_byte", "shell"},
        Transcript{"gen_tdf", "gen tdf --data '<home>' --cpu mps2/CM4 --instructions 400", sameRecordingAsTheShell}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ShellTest, EndOfInputWaitsForOwedRepliesOnly) {
  // A cancel of a command already answered owes nothing; the shell ends at
  // once without using up its wait. (Whether the reply or the cancel comes
  // first varies, so no transcript.)
  auto start = std::chrono::steady_clock::now();
  ProgramRun r = ProgramRunner().run("shell --wait 20", "{\"command\":\"cloudTrace.stopSession\",\"id\":1}\n{\"cancel\":1}\n");
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

}  // namespace
