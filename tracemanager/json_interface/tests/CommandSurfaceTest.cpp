// The trace and scripting commands as a host sees them on a machine without
// tool libraries and before any session.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "ScriptingConfig.hpp"
#include "TestSink.hpp"
#include "Translator.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

using JSONInterface::Translator;

namespace {

class CommandSurfaceTest : public ::testing::Test {
 protected:
  TestSink out;
  Translator translator{out.sink()};

  std::vector<std::string> run(const std::string& text) {
    out.clear();
    translator.process(text);
    return out.texts();
  }
  std::string reply(const std::string& text) {
    auto texts = run(text);
    EXPECT_EQ(texts.size(), 1u) << text;
    return texts.empty() ? std::string() : texts.back();
  }
};

TEST_F(CommandSurfaceTest, GetTestStringSendsTheEventThenTheReply) {
  auto texts = run(R"({"command":"cloudTrace.getTestString","id":1,"data":["x"]})");
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_EQ(texts[0],
            R"({"data":{"description":"x > appended test string","eventName":"getTestString",)"
            R"("handle":"_handle_","target":"_target_"},"event":"cloudTrace.traceEvent"})");
  EXPECT_EQ(texts[1], R"({"data":{"thestring":"x > appended test string"},"response":1})");
  // A number is text to a string argument; a missing one is "".
  EXPECT_EQ(run(R"({"command":"cloudTrace.getTestString","id":2,"data":[5]})")[1],
            R"({"data":{"thestring":"5 > appended test string"},"response":2})");
  EXPECT_EQ(run(R"({"command":"cloudTrace.getTestString","id":3})")[1],
            R"({"data":{"thestring":" > appended test string"},"response":3})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.getTestString","id":4,"data":[{}]})"),
            R"({"data":{"message":"Cannot convert {} to string"},"error":4})");
}

TEST_F(CommandSurfaceTest, UsecasesByFirstMatchingKey) {
  auto usecases = [&](const std::string& device) {
    return reply(R"({"command":"cloudTrace.getListOfUsecases","id":1,"data":[")" + device + R"("]})");
  };
  const std::string etm =
      R"({"data":["trace-default-core-trace-ETM","trace-custom-core-trace-ETM"],"response":1})";
  EXPECT_EQ(usecases("ARM_Cortex_R5_0"), etm);
  EXPECT_EQ(usecases("Cortex_M4_M0"), etm);  // Cortex_M4 stands before M0
  EXPECT_EQ(usecases("Cortex_M0"), R"({"data":["trace-default-core-trace-MTB"],"response":1})");
  EXPECT_EQ(usecases("DsaCore"), R"({"data":["trace-default-core-trace-RTAU-MTB"],"response":1})");
  EXPECT_EQ(usecases("Cortex_M33"), R"({"data":[],"response":1})");
  EXPECT_EQ(usecases("cortex_m4"), R"({"data":[],"response":1})");  // case-sensitive
}

TEST_F(CommandSurfaceTest, WithoutToolsAndSessionsCommandsAnswerAsDocumented) {
  EXPECT_EQ(reply(R"({"command":"cloudTrace.getDevices","id":1,"data":[false,""]})"),
            R"({"data":{"message":"Missing tdf name for non-live session"},"error":1})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.getDevices","id":2,"data":[true]})"),
            R"({"data":{"message":"Failed to acquire hemlock"},"error":2})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.getLiveTraceReceivers","id":3,"data":[""]})"),
            R"({"data":[],"response":3})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.stopSession","id":4})"), R"({"response":4})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.configureTargetSession","id":5,"data":["","{}"]})"),
            R"({"data":{},"response":5})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.configureTargetSession","id":6,"data":["cpu","not json"]})"),
            R"({"data":{},"response":6})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.configureTargetSession","id":7,"data":["cpu",)"
                  R"("{\"traceSession\":{\"MTB\":{\"enable\":true}}}"]})"),
            R"({"data":{},"response":7})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.configureSession","id":8,"data":["{}"]})"),
            R"({"data":{},"response":8})");
  for (const char* command :
       {"cloudTrace.exportCaptureToCSV", "cloudTrace.startTspServer", "cloudTrace.terminateTspServer",
        "cloudTrace.enableLiveTraces", "cloudTrace.disableLiveTraces", "cloudTrace.enableETB",
        "cloudTrace.disableETB", "cloudTrace.enableMTB", "cloudTrace.disableMTB", "cloudTrace.disableWL"}) {
    EXPECT_EQ(reply(std::string(R"({"command":")") + command + R"(","id":9,"data":["cpu"]})"),
              R"({"data":{"message":"Trace has not been configured"},"error":9})")
        << command;
  }
  EXPECT_EQ(reply(R"({"command":"cloudTrace.enableLiveTrace","id":10,"data":["c","MTB",true]})"),
            R"({"data":{"message":"Trace has not been configured"},"error":10})");
}

TEST_F(CommandSurfaceTest, ArgumentsAreDecodedFromTheLastToTheFirst) {
  EXPECT_EQ(reply(R"({"command":"cloudTrace.enableLiveTrace","id":1,"data":["c","MTB",[]]})"),
            R"({"data":{"message":"Cannot convert [] to bool"},"error":1})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.enableLiveTrace","id":2,"data":[[],{},true]})"),
            R"({"data":{"message":"Cannot convert {} to string"},"error":2})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.enableLiveTrace","id":3,"data":["c",["MTB",[1]],true]})"),
            R"({"data":{"message":"Cannot convert [1] to string"},"error":3})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.enableWL","id":4,"data":["cpu","x"]})"),
            R"({"data":{"message":"Cannot convert \"x\" to bool"},"error":4})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.configureTargetSession","id":5,"data":[{},[]]})"),
            R"({"data":{"message":"Cannot convert [] to string"},"error":5})");
}

// A port that was free a moment ago, for the module's trace server.
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

TEST_F(CommandSurfaceTest, TdfSessionStartsWithoutATarget) {
  // The TDF road starts a session even without a connected target; without
  // a file capture in this build its thread reports that it cannot enable.
  ::setenv("OSTRAND_TSP_PORT", std::to_string(freeLoopbackPort()).c_str(), 1);
  Json::Value answer;
  for (const auto& text : run(R"({"command":"cloudTrace.configureTargetSession","id":1,"data":["cpu",)"
                              R"("{\"traceSession\":{\"TDF\":{\"enable\":true}}}"]})")) {
    if (text.find(R"("response":1)") != std::string::npos) Json::Reader().parse(text, answer);
  }
  const Json::Value& location = answer["data"]["dataLocation"][0];
  EXPECT_EQ(location["target"].asString(), "cpu");
  EXPECT_EQ(location["traceType"].asString(), "TDF");
  EXPECT_EQ(location["uri"].asString().rfind("file:///", 0), 0u);
  EXPECT_NE(location["uri"].asString().find("/.QX-trace/data/file-targets/cpu/TDF"), std::string::npos);
  const std::string refused =
      R"({"data":{"description":"{\"showStatusMsg\":true,\"statusMsg\":\"Invalid TDF file name: \"}\n",)"
      R"("eventName":"Collecting","handle":"","target":"cpu"},"event":"cloudTrace.traceEvent"})";
  auto seen = [&] {
    auto texts = out.texts();
    return std::find(texts.begin(), texts.end(), refused) != texts.end();
  };
  for (int i = 0; i < 500 && !seen(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_TRUE(seen());
  EXPECT_EQ(reply(R"({"command":"cloudTrace.stopSession","id":2})"), R"({"response":2})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.configureTDFSession","id":3,"data":["cpu","{}"]})"),
            R"({"data":{},"response":3})");
}

TEST_F(CommandSurfaceTest, ScriptingConfigureTraceDecodingErrors) {
  auto configure = [&](const std::string& config) {
    return reply(R"({"command":"scripting.configureTrace","id":1,"data":["cpu",)" + config + "]}");
  };
  auto error = [](const std::string& message) {
    return R"({"data":{"message":")" + message + R"("},"error":1})";
  };
  EXPECT_EQ(configure(R"({"MTB":{}})"), error("No member 'enable\\\""));
  EXPECT_EQ(configure(R"({"MTB":{"enable":true,"opProp":[{"name":"g"}]}})"),
            error("No member 'sub_properties\\\""));
  EXPECT_EQ(configure(R"({"MTB":{"enable":true,"opProp":[{"name":"g","sub_properties":[{"type":"t"}]}]}})"),
            error("No member 'name\\\""));
  EXPECT_EQ(configure("5"), error("Cannot convert 5 to a map"));
  EXPECT_EQ(configure(R"("MTB")"), error("Cannot convert \\\"MTB\\\" to a map"));
  EXPECT_EQ(configure(R"("MTB={}")"), error("No member 'enable\\\""));
  EXPECT_EQ(configure(R"({"MTB":{"enable":true,"opProp":[{"name":"g","sub_properties":)"
                      R"([{"name":"p","type":"Number","value":[1]}]}]}})"),
            error("Cannot convert [1] to a variant of the allowed types"));
  EXPECT_EQ(configure(R"({"MTB":{"enable":"yes"}})"), error("Cannot convert \\\"yes\\\" to bool"));
  // Well formed, but nothing can start without tools.
  EXPECT_EQ(configure(R"({"MTB":{"enable":true}})"), error("Failed to configure trace."));
  EXPECT_EQ(reply(R"({"command":"scripting.configureTargetSession","id":1,"data":["cpu","{}"]})"),
            error("Failed to configure trace."));
  EXPECT_EQ(reply(R"({"command":"scripting.exportCaptureToCSV","id":1,"data":["cpu","MTB","/tmp/x.csv"]})"),
            error("Trace has not been configured"));
}

TEST(ScriptingConfigTest, ValuesKeepTheirTypeAndEmptyOptionalsVanish) {
  Json::Value in;
  ASSERT_TRUE(Json::Reader().parse(
      R"({"ETB":{"enable":1,"opProp":[]},"MTB":{"enable":true,"opProp":{"name":"g","sub_properties":)"
      R"([{"name":"a","type":"Boolean","value":true},{"name":"b","type":"Number","value":5},)"
      R"({"name":"c","type":"String","value":"5","sub_properties":null,"extra":1}]}}})",
      in));
  auto config = AsyncInterface::Scripting::decodeTraceConfig(in);
  std::string text = Json::FastWriter().write(AsyncInterface::Scripting::encodeTraceConfig(config));
  EXPECT_EQ(text,
            R"({"traceSession":{"ETB":{"enable":true},"MTB":{"enable":true,"opProp":[{"name":"g",)"
            R"("sub_properties":[{"name":"a","type":"Boolean","value":true},{"name":"b","type":"Number",)"
            R"("value":5},{"name":"c","type":"String","value":"5"}]}]}}})"
            "\n");
}

}  // namespace
