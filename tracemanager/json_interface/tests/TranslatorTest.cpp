// The translator: every message form, deferred answers and cancels as a
// transcript through it, its refusal of an unknown message kind, and its
// one writer under threads.
#include "json_interface/Translator.hpp"

#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "TestSink.hpp"
#include "TestSupport.hpp"

using JSONInterface::Translator;

namespace {

class TranslatorTest : public ::testing::Test {
 protected:
  TestSink out;
  Translator translator{out.sink()};
};

// The message forms as a transcript: golden/commands.jsonl holds the
// messages, golden/commands.expected every text each one made the module
// send (replies and events, in order).
TEST_F(TranslatorTest, CommandTranscriptOfEveryMessageForm) {
  translator.addCommand("test.throwInt", [](unsigned int, const Json::Value&) { throw 42; });
  translator.addCommand("test.throwStd", [](unsigned int, const Json::Value&) {
    throw std::logic_error("handler failed");
  });
  // Deferred answers: test.defer waits for a fresh operation that
  // test.settle resolves; test.failDeferred's operation has failed already.
  low::promise<void> operation;
  translator.addCommand("test.defer", [&](unsigned int id, const Json::Value&) {
    operation = low::promise<void>();
    translator.deferResponse(id, operation);
  });
  translator.addCommand("test.settle", [&](unsigned int id, const Json::Value&) {
    operation.resolve();
    translator.sendResponse(id);
  });
  translator.addCommand("test.failDeferred", [&](unsigned int id, const Json::Value&) {
    translator.deferResponse(id, low::rejected(std::runtime_error("An internal error occurred")));
  });
  const std::string golden =
      ostrand_test::sourcePath("tracemanager/json_interface/tests/golden/commands");
  std::ifstream in(golden + ".jsonl");
  ASSERT_TRUE(in);
  std::ostringstream transcript;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    out.clear();
    translator.process(line);
    transcript << "> " << (line.size() > 200 ? line.substr(0, 40) + "..." : line) << "\n";
    for (const std::string& text : out.texts()) transcript << "< " << text << "\n";
  }
  EXPECT_TRUE(ostrand_test::matchesGolden(transcript.str(), golden + ".expected"));
  EXPECT_EQ(translator.pendingCount(), 0u);
}

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
