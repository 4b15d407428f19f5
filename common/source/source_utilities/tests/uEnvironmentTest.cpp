#include "source_utilities/uEnvironment.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "TestSupport.hpp"
#include "source_utilities/Platform.hpp"
#include "source_utilities/SourceUtilitiesError.hpp"

using ::testing::StrEq;
using ::testing::ThrowsMessage;

using namespace QX_NLV;

TEST(JoinPathTest, NormalisesSeparators) {
  for (auto [base, tail, joined] :
       {std::tuple<std::string, const char*, const char*>{"", "a\\\\b//c", "a/b/c"},
        {"a\\", "b/c", "a/b/c"},
        {"/home/u", ".QX-trace", "/home/u/.QX-trace"},
        {"/x/", "/y", "/x/y"}}) {
    EXPECT_EQ(joinPath(base, tail), joined) << base << " + " << tail;
  }
}

TEST(EnvironmentTest, SetAndGetAndNullArguments) {
  setEnvironment("OSTRAND_TEST_VAR", "value 1");
  EXPECT_STREQ(getEnvironment("OSTRAND_TEST_VAR"), "value 1");
  EXPECT_STREQ(getEnvironment("OSTRAND_TEST_VAR_UNSET_NEVER"), "");
  EXPECT_THAT([&] { setEnvironment("X", nullptr); },
              ThrowsMessage<source_utilities_error>(
                  StrEq("failed set an environment variable value to null")));
  EXPECT_THAT([&] { getEnvironment(nullptr); },
              ThrowsMessage<source_utilities_error>(
                  StrEq("failed set an environment variable name to null")));
}

TEST(EnvironmentTest, ValuesStayValidPerThread) {
  setEnvironment("OSTRAND_A", "first");
  const char* mine = getEnvironment("OSTRAND_A");
  std::thread other([] {
    for (int i = 0; i < 100; ++i) setEnvironment("OSTRAND_B", std::to_string(i).c_str());
    for (int i = 0; i < 100; ++i) getEnvironment("OSTRAND_B");
  });
  other.join();
  EXPECT_STREQ(mine, "first");
}

TEST(DirectoryTest, UserDataAndSettingsDirectoriesAreCreatedUnderTheHome) {
  ostrand_test::TempHome home;
  std::string user, data, settings;
  EXPECT_EQ(userDirectory(user), home.path() + "/.QX-trace");
  dataDirectory(data);
  settingsDirectory(settings);
  EXPECT_EQ(data, user + "/data");
  EXPECT_TRUE(std::filesystem::is_directory(data));
  EXPECT_TRUE(std::filesystem::is_directory(settings));
}

TEST(DirectoryTest, MissingHomeRaisesTheFixedText) {
  ostrand_test::TempHome home;
  std::string savedHome = getenv("HOME") ? getenv("HOME") : "";
  unsetenv("USERPROFILE");
  unsetenv("HOME");
  std::string out;
  EXPECT_THAT([&] { userDirectory(out); },
              ThrowsMessage<source_utilities_error>(
                  StrEq("failed to read environment variable \"USERPROFILE\"")));
  setenv("HOME", savedHome.c_str(), 1);
}

TEST(DirectoryTest, MakeDirectoriesCreatesEveryLevel) {
  ostrand_test::TempHome home;
  std::string deep = home.path() + "\\a/b\\c";
  EXPECT_TRUE(makeDirectories(deep.c_str()));
  EXPECT_TRUE(std::filesystem::is_directory(home.path() + "/a/b/c"));
  EXPECT_TRUE(makeDirectories(deep.c_str()));  // existing is no error
}

TEST(ProcessTest, FindsRunningProcessesOnly) {
  uint32_t self = static_cast<uint32_t>(getpid());
  EXPECT_EQ(processExists(self), self);
  EXPECT_EQ(processExists(0), 0u);
  EXPECT_EQ(processExists(0x7FFFFFF0u), 0u);
}

TEST(PlatformTest, LibraryFileNames) {
  EXPECT_EQ(platform::libraryFileName("hemlock"), "libhemlock.so");
  EXPECT_EQ(platform::libraryFileName("hemlock.dll"), "libhemlock.so");
  EXPECT_EQ(platform::libraryFileName("/opt/x/ChannelFoundry.dll"), "/opt/x/libChannelFoundry.so");
  EXPECT_EQ(platform::libraryFileName("libz.so"), "libz.so");
  EXPECT_EQ(platform::libraryFileName(".dll"), "");
}
