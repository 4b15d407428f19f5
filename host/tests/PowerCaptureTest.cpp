// Captures through `ostrand shell --sim`, as a debug host drives them: the
// replies and events against golden transcripts (the temporary home
// normalised), and what each capture leaves on disk.
#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <httplib.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <string>

#include "ProgramRunner.hpp"
#include "TestSupport.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

using ostrand_test::freeLoopbackPort;

using ostrand_test::ProgramRun;
using ostrand_test::readFile;

const std::string kGolden = std::string(OSTRAND_SOURCE_DIR) + "/host/tests/golden/";


using ostrand_test::replaceAll;

TEST(PowerCaptureTest, ShellTranscriptAndCaptureDirectory) {
  ostrand_test::ProgramRunner runner;
  ProgramRun r = runner.run("shell --sim", readFile(kGolden + "power_capture.jsonl"), "",
                            "OSTRAND_TSP_PORT=" + std::to_string(freeLoopbackPort()));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(ostrand_test::matchesGolden(replaceAll(r.out, runner.dir(), "<home>"),
                                          kGolden + "power_capture.expected"));

  // The second run replaced the first; the session's end leaves the files:
  // the module's metadata beside the stream the power probe wrote.
  const std::string dir = runner.dir() + "/.QX-trace/data/live-targets/microbit/CM0P/Wattline";
  Json::Value metadata;
  ASSERT_TRUE(Json::Reader().parse(readFile(dir + "/metadata"), metadata)) << dir;
  EXPECT_EQ(metadata["typeId"].asString(), "WL+");
  EXPECT_EQ(metadata["device"].asString(), "microbit/CM0P");
  Json::Value sup;
  ASSERT_TRUE(Json::Reader().parse(readFile(dir + "/metadataSup.json"), sup));
  EXPECT_EQ(sup["JState"]["name"].asString(), "M0PLUS_STATES");
  const uintmax_t streamBytes = std::filesystem::file_size(dir + "/WLData.bin");
  EXPECT_EQ(streamBytes % 26, 0u);  // records of type 7
  EXPECT_TRUE(std::filesystem::is_empty(runner.dir() + "/.QX-trace/data/.Wattline"));

  // The trace server over that data tree opens the capture as an experiment
  // with every record of the stream.
  const int port = freeLoopbackPort();
  const std::string serve = "timeout 60 '" + std::string(OSTRAND_PROGRAM) + "' serve --data '" + runner.dir() +
                            "' --port " + std::to_string(port) + " >'" + runner.dir() + "/serve.log' 2>&1 &";
  ASSERT_EQ(std::system(serve.c_str()), 0);
  httplib::Client client("127.0.0.1", port);
  std::string body;
  for (int i = 0; i < 200 && (body.empty() || body == "[]"); ++i) {
    if (auto listed = client.Get("/tsp/api/experiments"); listed && listed->status == 200) body = listed->body;
    if (body.empty() || body == "[]") std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  client.Get("/stop");
  ASSERT_FALSE(body.empty()) << readFile(runner.dir() + "/serve.log");
  Json::Value experiments;
  ASSERT_TRUE(Json::Reader().parse(body, experiments)) << body;
  bool found = false;
  for (const Json::Value& e : experiments) {
    if (e["traces"][0]["path"].asString().find("microbit/CM0P/Wattline") == std::string::npos) continue;
    found = true;
    EXPECT_EQ(e["nbEvents"].asUInt64(), streamBytes / 26 - 1) << e;  // all but the lead-in
    EXPECT_EQ(e["indexingStatus"].asString(), "COMPLETED") << e;
  }
  EXPECT_TRUE(found) << body;
}

// The MTB buffer of the Cortex-M0+ decoded at the halt: the rows name the
// firmware's own functions and files.
TEST(PowerCaptureTest, MtbCaptureTranscriptAndDecodedBuffer) {
  ostrand_test::ProgramRunner runner;
  ProgramRun r = runner.run("shell --sim", readFile(kGolden + "mtb_capture.jsonl"), "",
                            "OSTRAND_TSP_PORT=" + std::to_string(freeLoopbackPort()));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(ostrand_test::matchesGolden(replaceAll(r.out, runner.dir(), "<home>"),
                                          kGolden + "mtb_capture.expected"));

  const std::string dir = runner.dir() + "/.QX-trace/data/live-targets/microbit/CM0P/MTB";
  Json::Value metadata;
  ASSERT_TRUE(Json::Reader().parse(readFile(dir + "/metadata"), metadata)) << dir;
  EXPECT_EQ(metadata["typeId"].asString(), "MTB");
  EXPECT_EQ(metadata["dataFile"].asString(), "mtb_data.json");
  const std::string data = readFile(dir + "/mtb_data.json");
  // The program's own work, not a fault handler: the newest runs lie in
  // the work loop and the filter it calls.
  EXPECT_NE(data.find("\"function\" : \"process_block\""), std::string::npos) << data;
  EXPECT_NE(data.find("\"file\" : \"work.c\""), std::string::npos) << data;
  EXPECT_EQ(data.find("Default_Handler"), std::string::npos);
  EXPECT_EQ(data.find("HardFault_Handler"), std::string::npos);
}

// The scripting commands on a real capture: configure, run, export to CSV.
// The CSV's head names the firmware's functions, files and instructions.
TEST(PowerCaptureTest, ScriptingExportWritesTheCaptureAsCsv) {
  ostrand_test::ProgramRunner runner;
  ProgramRun r = runner.run("shell --sim",
                            replaceAll(readFile(kGolden + "scripting_export.jsonl"), "<home>", runner.dir()), "",
                            "OSTRAND_TSP_PORT=" + std::to_string(freeLoopbackPort()));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  const std::string csv = readFile(runner.dir() + "/mtb.csv");
  std::string head;
  for (size_t at = 0, lines = 0; at < csv.size() && lines < 8; ++lines) {
    const size_t end = csv.find('\n', at);
    head += csv.substr(at, end - at + 1);
    at = end == std::string::npos ? csv.size() : end + 1;
  }
  EXPECT_TRUE(ostrand_test::matchesGolden(replaceAll(r.out, runner.dir(), "<home>") + "--- mtb.csv\n" + head,
                                          kGolden + "scripting_export.expected"));
}

}  // namespace
