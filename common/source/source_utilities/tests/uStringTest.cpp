#include "source_utilities/uString.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ::testing::StrEq;
using ::testing::ThrowsMessage;

using QX_NLV::uString;

TEST(uStringTest, ReplaceAllNeverRescansInsertedText) {
  std::string text = "aaa";
  EXPECT_EQ(uString::replaceAll(text, "a", "aa"), "aaaaaa");
  std::string path = "a\\\\b";
  EXPECT_EQ(uString::replaceAll(path, "\\\\", "\\"), "a\\b");
  std::string untouched = "abc";
  EXPECT_EQ(uString::replaceAll(untouched, "", "x"), "abc");
  EXPECT_THROW(uString::replaceAll(text, nullptr, "x"), uString::error);
  EXPECT_THAT([&] { uString::replaceAll(text, "a", nullptr); },
              ThrowsMessage<QX_NLV::source_utilities_error>(
                  StrEq("unable to perform string replacement with null replacement text")));
}

TEST(uStringTest, SplitAtFirstDelimiter) {
  for (auto [text, delimiter, parts, left, right] :
       {std::tuple{"a\\b\\c", "\\", 2, "a", "b\\c"}, std::tuple{"abc", "\\", 1, "abc", ""},
        std::tuple{"k==v", "=", 2, "k", "=v"}}) {
    std::string l, r;
    EXPECT_EQ(uString::split(text, l, r, delimiter), parts) << text;
    EXPECT_EQ(l, left) << text;
    EXPECT_EQ(r, right) << text;
  }
  std::string l, r;
  EXPECT_EQ(uString::split("", l, r, "\\"), 0);
  EXPECT_THAT([&] { uString::split("x", l, r, nullptr); },
              ThrowsMessage<uString::error>(StrEq("unable to split with null delimeter")));
  EXPECT_THROW(uString::split(nullptr, l, r, "="), uString::error);
}

TEST(uStringTest, ToNumberBases) {
  for (auto [text, value] : std::initializer_list<std::pair<const char*, uint64_t>>{
           {"0x1F", 31}, {"0X10", 16}, {"017", 15}, {"42", 42}, {"0x", 0}, {"0", 0},
           {"0xFFFFFFFFFFFFFFFF", 0xFFFFFFFFFFFFFFFFull}})
    EXPECT_EQ(uString::toNumber(text), value) << text;
  EXPECT_THAT([&] { uString::toNumber(""); },
              ThrowsMessage<uString::error>(StrEq("unable to convert empty string to numeric")));
  EXPECT_THROW(uString::toNumber(nullptr), uString::error);
}

TEST(uStringTest, AppendNumberAppliesOnlyGivenOptions) {
  std::string text = "v=";
  EXPECT_EQ(uString::appendNumber(text, 255, std::ios::hex, 0, 4, '0'), "v=00ff");
  std::string plain;
  EXPECT_EQ(uString::appendNumber(plain, 1.5), "1.5");
}
