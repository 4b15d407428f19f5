// The translator's refusal of an unknown message kind and its one writer
// under threads; the message forms, deferred answers and cancels are in the
// command transcript.
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
};

TEST_F(TranslatorTest, UnknownMessageKindIsRefused) {
  EXPECT_THROW(translator.sendMessage(static_cast<Translator::MessageKind>(7), 1, Json::Value()),
               std::runtime_error);
}

// Events from a foreign thread and replies from this one go through one
// writer and one sink; every text arrives whole.
TEST_F(TranslatorTest, EventsAndRepliesFromDifferentThreadsStayWhole) {
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
