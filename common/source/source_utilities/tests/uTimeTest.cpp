#include "source_utilities/uTime.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>

using QX_NLV::uTime;

TEST(uTimeTest, DayOfYearUsesTheLeapTableForYearsDivisibleByFour) {
  EXPECT_EQ(uTime::dayOfYearFor(2024, 3, 1), 61);
  EXPECT_EQ(uTime::dayOfYearFor(2023, 3, 1), 60);
  EXPECT_EQ(uTime::dayOfYearFor(2026, 1, 1), 1);
  EXPECT_EQ(uTime::dayOfYearFor(2026, 12, 31), 365);
}

TEST(uTimeTest, FormatExpandsMillisecondCodes) {
  uTime now;
  char buffer[64];
  ASSERT_NE(now.format(buffer, sizeof buffer, "%H:%M:%S:%s | "), nullptr);
  EXPECT_TRUE(std::regex_match(buffer, std::regex(R"(\d\d:\d\d:\d\d:\d\d\d \| )"))) << buffer;
  ASSERT_NE(now.format(buffer, sizeof buffer, "%#s"), nullptr);
  EXPECT_EQ(std::atoi(buffer), now.millisecond());
  ASSERT_NE(now.format(buffer, sizeof buffer, "%m/%d/%y"), nullptr);
  EXPECT_EQ(std::strlen(buffer), 8u);
  EXPECT_EQ(now.format(nullptr, 10, "%s"), nullptr);
  EXPECT_EQ(now.format(buffer, 0, "%s"), nullptr);
}
