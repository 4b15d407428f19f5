#include "source_utilities/Logger.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "TestSupport.hpp"
#include "source_utilities/uEnvironment.hpp"

namespace {

using ostrand_test::readFile;

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Logger::instance().resetForTesting();
    setenv("OSTRAND_TEST_LOG_DIR", home_.path().c_str(), 1);
  }
  void TearDown() override {
    Logger::instance().resetForTesting();
    unsetenv("OSTRAND_TEST_LEVEL");
  }
  // Initialises a fresh named instance at this level and logs one record of
  // each category through the level-guarded statements.
  std::string logAllAtLevel(const char* value, const std::string& name) {
    setenv("OSTRAND_TEST_LEVEL", value, 1);
    EXPECT_TRUE(Logger::instance().init(name.c_str(), "OSTRAND_TEST_LEVEL", "OSTRAND_TEST_LOG_DIR", true));
    QX_LOG_MESSAGE("a message %d", 1);
    QX_LOG_ERROR("an error");
    QX_LOG_WARNING("a warning");
    QX_TRACE_FUNCTION("Some::function");
    QX_TRACE_ARG("arg", "value");
    return home_.path() + "/" + name;
  }
  ostrand_test::TempHome home_;
};

// Each value of the level variable: the level kept, and the file written
// with one record of each category through the level-guarded statements
// (times, source lines and the temporary home masked), against
// golden/logger-levels.expected. 1 to 6 map through the level table
// (messages, errors and warnings from 1, function and argument traces at
// 6); anything else turns the file off, though 7 is still kept as the level.
TEST_F(LoggerTest, LevelsAndWhatEachWritesMatchTheGoldenListing) {
  const auto masked = [&](const std::string& text) {
    const std::string named = ostrand_test::replaceAll(text, home_.path(), "{home}");
    const std::string timed =
        std::regex_replace(named, std::regex(R"(\d\d:\d\d:\d\d:\d\d\d)"), "hh:mm:ss:mmm");
    return std::regex_replace(timed, std::regex(R"(#\d+)"), "#N");
  };
  std::string listing;
  for (const char* value : {"1", "2", "3", "4", "5", "6", "7", "-1", "0", "", "junk"}) {
    testing::internal::CaptureStdout();
    const std::string path = logAllAtLevel(value, std::string("t") + value + ".txt");
    const std::string console = testing::internal::GetCapturedStdout();
    listing += "== level \"" + std::string(value) + "\" kept as " +
               std::to_string(Logger::instance().level()) + "\n";
    if (!console.empty()) listing += "console:\n" + masked(console);
    listing += std::filesystem::exists(path) ? "file:\n" + masked(readFile(path)) : "no file\n";
    Logger::instance().resetForTesting();
  }
  EXPECT_TRUE(ostrand_test::matchesGolden(
      listing, ostrand_test::sourcePath(
                   "common/source/source_utilities/tests/golden/logger-levels.expected")));
}

TEST_F(LoggerTest, NamedModeReusesAndSelectsInstances) {
  setenv("OSTRAND_TEST_LEVEL", "1", 1);
  auto& logger = Logger::instance();
  ASSERT_TRUE(logger.init("a.txt", "OSTRAND_TEST_LEVEL", "OSTRAND_TEST_LOG_DIR", true));
  QX_NLV::uLogger* first = logger.current();
  ASSERT_TRUE(logger.init("a.txt", "OSTRAND_TEST_LEVEL", "OSTRAND_TEST_LOG_DIR", true));
  EXPECT_EQ(logger.initCount(), 1);
  EXPECT_EQ(logger.current(), first);
  ASSERT_TRUE(logger.init("b.txt", "OSTRAND_TEST_LEVEL", "OSTRAND_TEST_LOG_DIR", true));
  EXPECT_EQ(logger.initCount(), 2);
  EXPECT_NE(logger.current(), first);
  EXPECT_EQ(logger.find("a.txt"), first);
}

TEST_F(LoggerTest, RefusesWhenTheFreeSpaceQueryFailsAndNullArguments) {
  setenv("OSTRAND_TEST_LEVEL", "1", 1);
  setenv("OSTRAND_TEST_BAD_DIR", "/proc/no/such/dir", 1);
  EXPECT_FALSE(Logger::instance().init("x.txt", "OSTRAND_TEST_LEVEL", "OSTRAND_TEST_BAD_DIR", true));
  EXPECT_EQ(Logger::instance().level(), 0);
  EXPECT_EQ(Logger::instance().current(), nullptr);
  EXPECT_FALSE(Logger::instance().init(nullptr, "OSTRAND_TEST_LEVEL", nullptr, true));
  EXPECT_FALSE(Logger::instance().init("x", nullptr, nullptr, true));
}

TEST_F(LoggerTest, EmptyDirectoryVariableLeavesARelativePath) {
  setenv("OSTRAND_TEST_LEVEL", "1", 1);
  setenv("OSTRAND_TEST_EMPTY_DIR", "", 1);
  std::string cwd = std::filesystem::current_path();
  std::filesystem::current_path(home_.path());
  ASSERT_TRUE(Logger::instance().init("rel.txt", "OSTRAND_TEST_LEVEL", "OSTRAND_TEST_EMPTY_DIR", true));
  EXPECT_EQ(Logger::instance().current()->path(), "rel.txt");
  std::filesystem::current_path(cwd);
}

TEST(uLoggerTest, EveryRecordEndsInExactlyOneLineFeed) {
  ostrand_test::TempHome home;
  std::string path = home.path() + "/endings.txt";
  {
    QX_NLV::uLogger log(path.c_str(), false);
    log.message("one\n");
    log.message("two\r\n");
    log.message("three");
    log.message("four\n\r");
    log.log(QX_NLV::kLogMessage | QX_NLV::kLogError, 9, "mask");
    log.log(0, 0, "no categories");
  }
  EXPECT_EQ(readFile(path), "M     one\nM     two\nM     three\nM     four\nM   E mask\n");
}

TEST(uLoggerTest, LongRecordsAreCutAndKeepTheirLineFeed) {
  ostrand_test::TempHome home;
  std::string path = home.path() + "/long.txt";
  {
    QX_NLV::uLogger log(path.c_str(), true);
    std::string big(10000, 'x');
    log.message("%s", big.c_str());
    log.message("after");
  }
  std::string text = readFile(path);
  auto firstEnd = text.find('\n');
  EXPECT_EQ(firstEnd, static_cast<size_t>(QX_NLV::uLogger::kBufferSize - 2));
  EXPECT_EQ(text.substr(firstEnd + 1), "M     after\n");
}

TEST(uLoggerTest, DisablingClosesAndReenablingReopens) {
  ostrand_test::TempHome home;
  std::string path = home.path() + "/toggle.txt";
  QX_NLV::uLogger log(path.c_str(), true);
  EXPECT_FALSE(std::filesystem::exists(path));  // opened at the first record
  log.message("a");
  EXPECT_TRUE(log.setEnabled(false));
  log.message("lost");
  EXPECT_FALSE(log.setEnabled(true));
  log.message("b");
  EXPECT_EQ(readFile(path), "M     a\nM     b\n");
}

TEST(LoggerBootstrapTest, StalePidIsReplacedAndDirectoriesPublished) {
  ostrand_test::TempHome home;
  Logger::instance().resetForTesting();
  setenv("QX_TRACE_DEBUGCLIENT_PID", "2147483000", 1);
  setenv("QX_TRACE_LOGGING", "1", 1);
  Logger::bootstrap();
  std::string pid = std::to_string(getpid());
  EXPECT_EQ(std::string(QX_NLV::getEnvironment("QX_TRACE_DEBUGCLIENT_PID")), pid);
  EXPECT_EQ(std::string(QX_NLV::getEnvironment("QX_TRACE_DATA_DIR")), home.path() + "/.QX-trace/data");
  EXPECT_EQ(std::string(QX_NLV::getEnvironment("QX_TRACE_SETTINGS_DIR")),
            home.path() + "/.QX-trace/settings");
  ASSERT_NE(Logger::instance().current(), nullptr);
  std::string name = std::filesystem::path(Logger::instance().current()->path()).filename();
  EXPECT_TRUE(std::regex_match(name, std::regex("qx_trace_log_\\d{5,8}_" + pid + "\\.txt"))) << name;
  EXPECT_EQ(Logger::logFileName(11, 18, 2026, "4312"), "qx_trace_log_11182026_4312.txt");
  unsetenv("QX_TRACE_LOGGING");
  Logger::instance().resetForTesting();
}
}  // namespace
