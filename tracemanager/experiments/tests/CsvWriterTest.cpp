#include "experiments/CsvWriter.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.hpp"

using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace VSKTspServer {
namespace {

using ostrand_test::readFile;
using ostrand_test::TempDir;

TEST(CsvWriter, QuotesOnlyCellsThatNeedIt) {
  TempDir dir;
  const std::string path = dir / "out.csv";
  {
    CsvWriter writer(path, {"name", "text", "note"});
    writer.writeCell("a,b");
    writer.writeCell("say \"hi\"");
    writer.writeCell("line\nbreak");
    writer.writeCell("plain");
    writer.writeCell("");
    writer.writeCell("cr\r");
  }
  EXPECT_EQ(readFile(path),
            "name,text,note\r\n"
            "\"a,b\",\"say \"\"hi\"\"\",\"line\nbreak\"\r\n"
            "plain,,\"cr\r\"\r\n");
}

TEST(CsvWriter, HeaderOnlyAndBytesUnchanged) {
  TempDir dir;
  const std::string path = dir / "h.csv";
  ostrand_test::writeFile(path, "old content that must go away");
  {
    CsvWriter writer(path, {"\xC3\xA9t\xC3\xA9", "x"});
  }
  // No byte order mark, no conversion, CR LF after the last row too.
  EXPECT_EQ(readFile(path), "\xC3\xA9t\xC3\xA9,x\r\n");

  const std::string withNul = dir / "n.csv";
  {
    CsvWriter writer(withNul, {"a"});
    writer.writeCell(std::string_view("x\0y", 3));
  }
  EXPECT_EQ(readFile(withNul), std::string("a\r\nx\0y\r\n", 8));
}

TEST(CsvWriter, MissingDirectoryThrowsWithThePath) {
  TempDir dir;
  const std::string path = dir / "no/such/dir/out.csv";
  EXPECT_THAT([&] { CsvWriter writer(path, {"a"}); },
              ThrowsMessage<std::runtime_error>(StrEq("Failed to create file '" + path + "'")));
}

}  // namespace
}  // namespace VSKTspServer
