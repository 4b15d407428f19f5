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

TEST_F(LoggerTest, LevelOneWritesMessagesErrorsAndWarningsOnly) {
  std::string path = logAllAtLevel("1", "one.txt");
  EXPECT_EQ(Logger::instance().level(), 1);
  std::string text = readFile(path);
  // The two directory records of init come first.
  EXPECT_NE(text.find("Logger : trace user settings directory is "), std::string::npos);
  EXPECT_TRUE(std::regex_search(text, std::regex(R"(M     \d\d:\d\d:\d\d:\d\d\d \| a message 1\n)")));
  EXPECT_TRUE(std::regex_search(text, std::regex(R"(    E \d\d:\d\d:\d\d:\d\d\d \| an error\n)")));
  EXPECT_NE(text.find(" W    a warning\n"), std::string::npos);
  EXPECT_EQ(text.find("Some::function"), std::string::npos);
  EXPECT_EQ(text.find("arg: value"), std::string::npos);
}

TEST_F(LoggerTest, LevelSixAddsFunctionAndArgumentTraces) {
  testing::internal::CaptureStdout();
  std::string path = logAllAtLevel("6", "six.txt");
  std::string console = testing::internal::GetCapturedStdout();
  EXPECT_EQ(Logger::instance().level(), 3);
  std::string text = readFile(path);
  EXPECT_TRUE(std::regex_search(
      text, std::regex(R"(  F   common/source/source_utilities/tests/LoggerTest #\d+  Some::function\(\.\.\.\)\n)")))
      << text;
  EXPECT_NE(text.find("   A  arg: value\n"), std::string::npos);
  EXPECT_NE(console.find("an error"), std::string::npos);
}

// 1 to 6 map through the level table; anything else turns the file off,
// though 7 is still kept as the level.
TEST_F(LoggerTest, LevelTableMapsValuesAndTurnsTheFileOffOutsideIt) {
  const int expected[] = {0, 1, 1, 2, 2, 2, 3};
  for (const char* value : {"1", "2", "3", "4", "5", "6", "7", "-1", "0", "", "junk"}) {
    const std::string path = logAllAtLevel(value, std::string("t") + value + ".txt");
    const int number = std::atoi(value);
    const bool inTable = number >= 1 && number <= 6;
    EXPECT_EQ(std::filesystem::exists(path), inTable) << value;
    if (inTable || number == 7) {
      EXPECT_EQ(Logger::instance().level(), inTable ? expected[number] : 7) << value;
    }
    Logger::instance().resetForTesting();
  }
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
