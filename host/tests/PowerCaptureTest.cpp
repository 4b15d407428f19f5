// Captures through `ostrand shell --sim`, as a debug host drives them: the
// replies and events against golden transcripts (the temporary home
// normalised), and what each capture leaves on disk.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "ProgramRunner.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

using ostrand_test::ProgramRun;
using ostrand_test::readFile;

const std::string kGolden = std::string(OSTRAND_SOURCE_DIR) + "/host/tests/golden/";

int freeLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), size);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(fd);
  return ntohs(address.sin_port);
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

TEST(PowerCaptureTest, ShellTranscriptAndCaptureDirectory) {
  ostrand_test::ProgramRunner runner;
  ProgramRun r = runner.run("shell --sim", readFile(kGolden + "power_capture.jsonl"), "",
                            "OSTRAND_TSP_PORT=" + std::to_string(freeLoopbackPort()));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(replaceAll(r.out, runner.dir(), "<home>"), readFile(kGolden + "power_capture.expected"));

  // The second run replaced the first; the session's end leaves the files.
  const std::string dir = runner.dir() + "/.QX-trace/data/live-targets/CM0P/Wattline";
  Json::Value metadata;
  ASSERT_TRUE(Json::Reader().parse(readFile(dir + "/metadata"), metadata)) << dir;
  EXPECT_EQ(metadata["typeId"].asString(), "WL");
  EXPECT_EQ(metadata["device"].asString(), "CM0P");
  EXPECT_EQ(readFile(dir + "/metadataSup.json"), "{}\n");
  EXPECT_TRUE(std::filesystem::is_empty(runner.dir() + "/.QX-trace/data/.Wattline"));
}

// The MTB buffer of the Cortex-M0+ decoded at the halt: the rows name the
// firmware's own functions and files.
TEST(PowerCaptureTest, MtbCaptureTranscriptAndDecodedBuffer) {
  ostrand_test::ProgramRunner runner;
  ProgramRun r = runner.run("shell --sim", readFile(kGolden + "mtb_capture.jsonl"), "",
                            "OSTRAND_TSP_PORT=" + std::to_string(freeLoopbackPort()));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(replaceAll(r.out, runner.dir(), "<home>"), readFile(kGolden + "mtb_capture.expected"));

  const std::string dir = runner.dir() + "/.QX-trace/data/live-targets/CM0P/MTB";
  Json::Value metadata;
  ASSERT_TRUE(Json::Reader().parse(readFile(dir + "/metadata"), metadata)) << dir;
  EXPECT_EQ(metadata["typeId"].asString(), "MTB");
  EXPECT_EQ(metadata["dataFile"].asString(), "mtb_data.json");
  const std::string data = readFile(dir + "/mtb_data.json");
  EXPECT_NE(data.find("\"function\" : \"Default_Handler\""), std::string::npos);
  EXPECT_NE(data.find("\"file\" : \"startup.c\""), std::string::npos);
}

}  // namespace
