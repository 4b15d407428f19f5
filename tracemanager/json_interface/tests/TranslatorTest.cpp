#include "Translator.hpp"

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <set>
#include <thread>

#include "TestSink.hpp"

using JSONInterface::Translator;

namespace {

class TranslatorTest : public ::testing::Test {
 protected:
  TestSink out;
  Translator translator{out.sink()};

  std::string reply(const std::string& text) {
    out.clear();
    translator.process(text);
    auto texts = out.texts();
    EXPECT_EQ(texts.size(), 1u) << text;
    return texts.empty() ? std::string() : texts.back();
  }
};

TEST_F(TranslatorTest, ListCommandsNamesAllTwentyFour) {
  std::string text = reply(R"({"command":"listCommands","id":7})");
  Json::Value root;
  ASSERT_TRUE(Json::Reader().parse(text, root));
  EXPECT_EQ(root["response"].asUInt(), 7u);
  std::set<std::string> names;
  for (const auto& n : root["data"]["commands"]) names.insert(n.asString());
  EXPECT_EQ(names.size(), 24u);
  for (const char* expected :
       {"listCommands", "cloudTrace.getTestString", "cloudTrace.getDevices", "cloudTrace.getListOfUsecases",
        "cloudTrace.getLiveTraceReceivers", "cloudTrace.configureTargetSession",
        "cloudTrace.configureTDFSession", "cloudTrace.configureSession", "cloudTrace.stopSession",
        "cloudTrace.exportCaptureToCSV", "cloudTrace.startTspServer", "cloudTrace.terminateTspServer",
        "cloudTrace.enableLiveTrace", "cloudTrace.enableLiveTraces", "cloudTrace.disableLiveTraces",
        "cloudTrace.enableETB", "cloudTrace.disableETB", "cloudTrace.enableMTB", "cloudTrace.disableMTB",
        "cloudTrace.enableWL", "cloudTrace.disableWL", "scripting.configureTrace",
        "scripting.configureTargetSession", "scripting.exportCaptureToCSV"}) {
    EXPECT_TRUE(names.count(expected)) << expected;
  }
  EXPECT_EQ(text.rfind(R"({"data":{"commands":[)", 0), 0u);
  EXPECT_NE(text.back(), '\n');
}

TEST_F(TranslatorTest, MessageFormsAndTheirErrors) {
  struct Case {
    const char* in;
    const char* out;
  };
  const Case cases[] = {
      {R"({"command":"nope","id":3})", R"({"data":{"message":"Unknown command: \"nope\""},"error":3})"},
      // The name is looked up before the id is converted.
      {R"({"command":"nope","id":"x"})", R"({"data":{"message":"Unknown command: \"nope\""},"error":"x"})"},
      {R"({"command":"listCommands","id":"x"})",
       R"({"data":{"message":"Cannot convert \"x\" to unsigned int"},"error":"x"})"},
      {R"({"command":"listCommands","id":-1})",
       R"({"data":{"message":"Cannot convert -1 to unsigned int"},"error":-1})"},
      {R"({"id":3})", R"({"data":{"message":"No operation specified: \"{\"id\":3}\""},"error":3})"},
      {"garbage", R"({"data":{"message":"Failed to parse \"garbage\""},"error":null})"},
      {"12", R"({"data":{"message":"Failed to parse \"12\""},"error":null})"},
      {R"({"command":null,"cancel":null})",
       R"({"data":{"message":"No operation specified: \"{\"command\":null,\"cancel\":null}\""},"error":null})"},
      {R"([{"command":"listCommands","id":1}])",
       R"({"data":{"message":"No operation specified: \"[{\"command\":\"listCommands\",\"id\":1}]\""},"error":null})"},
      {R"({"command":"cloudTrace.getTestString","data":["x"],"id":1,/*c*/})",
       R"({"data":{"message":"Failed to parse \"{\"command\":\"cloudTrace.getTestString\",\"data\":[\"x\"],\"id\":1,/*c*/}\""},"error":null})"},
      {R"({"cancel":"x"})", R"({"data":{"message":"Value is not convertible to UInt."},"error":null})"},
  };
  for (const auto& c : cases) EXPECT_EQ(reply(c.in), c.out) << c.in;
}

TEST_F(TranslatorTest, MissingIdAnswersZeroAndTrailingTextIsIgnored) {
  EXPECT_EQ(reply(R"({"command":"cloudTrace.stopSession"})"), R"({"response":0})");
  EXPECT_EQ(reply(R"({"command":"cloudTrace.stopSession","id":7} trailing)"), R"({"response":7})");
  // "cancel" is not looked at when "command" is present.
  EXPECT_EQ(reply(R"({"command":"cloudTrace.stopSession","cancel":5,"id":2})"), R"({"response":2})");
}

TEST_F(TranslatorTest, NestingBeyondTheLimitIsAnError) {
  std::string deep(1100, '[');
  deep += std::string(1100, ']');
  EXPECT_EQ(reply(deep), R"({"data":{"message":"Exceeded stackLimit in readValue()."},"error":null})");
  std::string fine(900, '[');
  fine += std::string(900, ']');
  EXPECT_NE(reply(fine).find("No operation specified"), std::string::npos);
}

TEST_F(TranslatorTest, CancelOfUnknownIdSendsNothing) {
  out.clear();
  translator.process(R"({"cancel":99})");
  EXPECT_TRUE(out.texts().empty());
}

TEST_F(TranslatorTest, HandlersThrowingAnythingAreAnsweredAndTheCallerSurvives) {
  translator.addCommand("test.throwInt", [](unsigned int, const Json::Value&) { throw 42; });
  translator.addCommand("test.throwStd", [](unsigned int, const Json::Value&) {
    throw std::logic_error("handler failed");
  });
  EXPECT_EQ(reply(R"({"command":"test.throwInt","id":4})"),
            R"({"data":{"message":"An internal error occurred"},"error":4})");
  EXPECT_EQ(reply(R"({"command":"test.throwStd","id":5})"),
            R"({"data":{"message":"handler failed"},"error":5})");
}

TEST_F(TranslatorTest, DeferredCommandsAnswerWhenTheirOperationSettles) {
  low::promise<void> operation;
  translator.addCommand("test.defer", [&](unsigned int id, const Json::Value&) {
    translator.deferResponse(id, operation);
  });
  out.clear();
  translator.process(R"({"command":"test.defer","id":11})");
  EXPECT_TRUE(out.texts().empty());
  EXPECT_EQ(translator.pendingCount(), 1u);
  translator.process(R"({"command":"cloudTrace.stopSession","id":12})");  // later command answers first
  operation.resolve();
  EXPECT_EQ(out.texts(), (std::vector<std::string>{R"({"response":12})", R"({"response":11})"}));
  EXPECT_EQ(translator.pendingCount(), 0u);

  // Failing at once: the error comes back and nothing stays pending.
  low::promise<void> failed = low::rejected(std::runtime_error("An internal error occurred"));
  translator.addCommand("test.fail", [&](unsigned int id, const Json::Value&) {
    translator.deferResponse(id, failed);
  });
  EXPECT_EQ(reply(R"({"command":"test.fail","id":13})"),
            R"({"data":{"message":"An internal error occurred"},"error":13})");
  EXPECT_EQ(translator.pendingCount(), 0u);

  // A cancelled command never answers, even when its operation finishes.
  low::promise<void> slow;
  translator.addCommand("test.slow", [&](unsigned int id, const Json::Value&) {
    translator.deferResponse(id, slow);
  });
  out.clear();
  translator.process(R"({"command":"test.slow","id":14})");
  translator.process(R"({"cancel":14})");
  slow.resolve();
  EXPECT_TRUE(out.texts().empty());
  EXPECT_EQ(translator.pendingCount(), 0u);
}

TEST_F(TranslatorTest, UnknownMessageKindIsRefused) {
  EXPECT_THROW(translator.sendMessage(static_cast<Translator::MessageKind>(7), 1, Json::Value()),
               std::runtime_error);
}

// Events from a foreign thread and replies from this one go through one
// writer and one sink; every text arrives whole.
TEST_F(TranslatorTest, EventsAndRepliesFromDifferentThreadsStayWhole) {
  out.clear();
  std::thread events([&] {
    for (int i = 0; i < 300; ++i) {
      Json::Value data(Json::objectValue);
      data["n"] = i;
      translator.sendMessage(Translator::event, "test.event", data);
    }
  });
  for (int i = 0; i < 300; ++i) translator.process(R"({"command":"cloudTrace.stopSession","id":1})");
  events.join();
  auto texts = out.texts();
  ASSERT_EQ(texts.size(), 600u);
  int eventCount = 0;
  for (const auto& t : texts) {
    if (t == R"({"response":1})") continue;
    Json::Value root;
    ASSERT_TRUE(Json::Reader().parse(t, root)) << t;
    EXPECT_EQ(root["event"].asString(), "test.event");
    EXPECT_EQ(root["data"]["n"].asInt(), eventCount++);  // one thread's texts keep their order
  }
}

}  // namespace
