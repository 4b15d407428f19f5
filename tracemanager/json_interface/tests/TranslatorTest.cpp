#include "json_interface/Translator.hpp"

#include <gtest/gtest.h>
#include <json/json.h>

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
