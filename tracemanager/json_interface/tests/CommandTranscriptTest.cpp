// The command layer's message forms as a transcript through the translator:
// golden/commands.jsonl holds the messages, golden/commands.expected every
// text each one made the module send (replies and events, in order).
#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "TestSink.hpp"
#include "TestSupport.hpp"
#include "json_interface/Translator.hpp"

namespace {

TEST(CommandTranscript, EveryMessageFormAndItsAnswers) {
  TestSink out;
  JSONInterface::Translator translator{out.sink()};
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
  const std::string golden = ostrand_test::sourcePath("tracemanager/json_interface/tests/golden/commands");
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

}  // namespace
