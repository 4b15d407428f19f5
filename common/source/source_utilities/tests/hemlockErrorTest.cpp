#include "source_utilities/hemlockError.hpp"

#include <gtest/gtest.h>

using Qx::Nlv::Hemlock::hemlockError;
using Severity = Qx::Nlv::Hemlock::hemlockErrorIF::Severity_Type;

// Defaults, a severity out of range, and null arguments, which change
// nothing.
TEST(hemlockErrorTest, DefaultsOutOfRangeSeverityAndNullArguments) {
  hemlockError plain;
  EXPECT_STREQ(plain.GetTitle(), "Error");
  EXPECT_STREQ(plain.GetErrorText(), "Uninitialized error text");
  EXPECT_EQ(hemlockError(Severity(9)).GetSeverity(), Severity(2));
  EXPECT_EQ(hemlockError(Severity(-1)).GetSeverity(), Severity(2));
  hemlockError clamped;
  clamped.SetSeverity(Severity(7));
  EXPECT_EQ(clamped.GetSeverity(), Severity(2));
  hemlockError e("t", "text", Severity(1));
  e.SetTitle(static_cast<const char*>(nullptr));
  e.SetErrorText(static_cast<const char*>(nullptr));
  e.AddDetailedInfo(static_cast<const char*>(nullptr));
  e.PushText(static_cast<const char*>(nullptr));
  EXPECT_STREQ(e.GetTitle(), "t");
  EXPECT_STREQ(e.GetErrorText(), "text");
  EXPECT_STREQ(e.GetDetailedText(), "");
  hemlockError nulls(static_cast<const char*>(nullptr), nullptr, Severity(0));
  EXPECT_STREQ(nulls.GetErrorText(), "");
  EXPECT_STREQ(nulls.GetTitle(), "Information");
}

TEST(hemlockErrorTest, TitleFixedAtFirstReadingAndPushedTextKeepsTheOlder) {
  hemlockError e("a", Severity(4));
  EXPECT_STREQ(e.GetTitle(), "Fatal");
  e.SetSeverity(Severity(1));
  EXPECT_STREQ(e.GetTitle(), "Fatal");
  e.PushText("b");
  EXPECT_STREQ(e.GetErrorText(), "b");
  EXPECT_STREQ(e.GetDetailedText(), "a");
}

TEST(hemlockErrorTest, DetailedTextJoinsOnceAndIsCached) {
  hemlockError e;
  EXPECT_STREQ(e.GetDetailedText(), "");
  e.AddDetailedInfo("x");
  e.AddDetailedInfo(std::string("y"));
  EXPECT_STREQ(e.GetDetailedText(), "x\ny");
  e.AddDetailedInfo("z");
  EXPECT_STREQ(e.GetDetailedText(), "x\ny");
}

TEST(hemlockErrorTest, CopyAndAssignmentCarryEverything) {
  hemlockError source("title", "text", Severity(3));
  source.AddDetailedInfo("d1");
  hemlockError copy(source);
  EXPECT_STREQ(copy.GetTitle(), "title");
  EXPECT_STREQ(copy.GetErrorText(), "text");
  EXPECT_EQ(copy.GetSeverity(), Severity(3));
  EXPECT_STREQ(copy.GetDetailedText(), "d1");
  hemlockError target("other", Severity(0));
  target.AddDetailedInfo("old");
  target = source;
  EXPECT_STREQ(target.GetErrorText(), "text");
  EXPECT_STREQ(target.GetDetailedText(), "d1");
}
