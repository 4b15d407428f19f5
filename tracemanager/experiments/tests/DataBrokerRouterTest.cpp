#include "experiments/DataBrokerRouter.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "TestSupport.hpp"
#include "experiments/VSKTrace.hpp"

namespace VSKTspServer {
namespace {

using nlohmann::json;
using ostrand_test::TempDir;

std::string header(const std::string& path, const std::string& name) {
  return json{{"path", path}, {"name", name}}.dump();
}

// A missing file reads as an empty object (text) or no buffer (bytes);
// writing into a missing directory is silent and makes nothing.
TEST(DataBrokerRouter, MissingFilesAndDirectoriesAreNoError) {
  TempDir dir;
  DataBrokerRouter router;
  EXPECT_EQ(router.readText(kTopicFile, header(dir.path(), "mtb_data.json")), "{}");
  BrokerBytes bytes = router.readData(kTopicFile, header(dir.path(), "WLData.bin"));
  EXPECT_EQ(bytes.data, nullptr);
  EXPECT_EQ(bytes.size, 0u);
  EXPECT_NO_THROW(router.writeText(kTopicFile, header(dir / "nope", "metadata"), "{}"));
  EXPECT_FALSE(std::filesystem::exists(dir / "nope"));
}

TEST(DataBrokerRouter, FileTopicRoundTrips) {
  TempDir dir;
  DataBrokerRouter router;
  router.writeText(kTopicFile, header(dir.path(), "metadata"), R"({"typeId":"MTB"})");
  EXPECT_EQ(ostrand_test::readFile(dir / "metadata"), R"({"typeId":"MTB"})");
  router.writeText(kTopicFile, header(dir.path(), "metadata"), "{}");  // truncates
  EXPECT_EQ(router.readText(kTopicFile, header(dir.path(), "metadata")), "{}");

  const uint8_t raw[] = {0x12, 0x00, 0xFF, 0x0A, 0x0D};
  router.writeData(kTopicFile, header(dir.path(), "WLData.bin"), raw, sizeof raw);
  BrokerBytes back = router.readData(kTopicFile, header(dir.path(), "WLData.bin"));
  ASSERT_NE(back.data, nullptr);
  ASSERT_EQ(back.size, sizeof raw);
  EXPECT_EQ(std::memcmp(back.data.get(), raw, sizeof raw), 0);

  router.writeData(kTopicFile, header(dir.path(), "empty.bin"), nullptr, 0);
  BrokerBytes empty = router.readData(kTopicFile, header(dir.path(), "empty.bin"));
  EXPECT_NE(empty.data, nullptr);  // a file that exists is a buffer, even empty
  EXPECT_EQ(empty.size, 0u);
}

TEST(DataBrokerRouter, OtherTopicsGetTheBaseBehaviour) {
  TempDir dir;
  ostrand_test::writeFile(dir / "mtb_data.json", "{\"code\":[]}");
  DataBrokerRouter router;
  EXPECT_EQ(router.readText(kTopicMtb, header(dir.path(), "mtb_data.json")), "");
  EXPECT_EQ(router.readText(kTopicWl, "{}"), "");
  EXPECT_EQ(router.readData(kTopicEtb, header(dir.path(), "mtb_data.json")).data, nullptr);
  router.writeText(kTopicMtb, header(dir.path(), "new"), "x");
  EXPECT_FALSE(std::filesystem::exists(dir / "new"));
}

TEST(DataBrokerRouter, BadHeadersThrow) {
  DataBrokerRouter router;
  EXPECT_THROW(router.readText(kTopicMtb, "not json"), json::parse_error);
  EXPECT_THROW(router.readText(kTopicFile, ""), json::parse_error);
  EXPECT_THAT([&] { router.readText(kTopicFile, R"({"name":"metadata"})"); },
              testing::ThrowsMessage<json::type_error>(
                  testing::HasSubstr("type_error.302] type must be string, but is ")));
  EXPECT_THROW(router.writeText(kTopicFile, R"({"path":1,"name":"m"})", "x"), json::type_error);
}

TEST(VSKTraceMetadata, TypeComesFromTheFile) {
  TempDir dir;
  ostrand_test::writeFile(dir / "metadata", R"({"typeId":"ETB","device":"P/M4"})");
  VSKTrace trace("ETB", dir.path(), "");
  EXPECT_EQ(trace.type, "ETB");
  EXPECT_EQ(trace.UUID.size(), 36u);
  EXPECT_EQ(dataFileName(trace, "etb_data.json"), "etb_data.json");

  ostrand_test::writeFile(dir / "metadata", R"({"typeId":"MTB","dataFile":"other.json"})");
  trace.readMetadata();
  EXPECT_EQ(trace.type, "MTB");
  EXPECT_EQ(dataFileName(trace, "mtb_data.json"), "other.json");
  ostrand_test::writeFile(dir / "metadata", R"({"typeId":"MTB","dataFile":7})");
  trace.readMetadata();
  EXPECT_EQ(dataFileName(trace, "mtb_data.json"), "mtb_data.json");

  ostrand_test::writeFile(dir / "metadata", "null");
  trace.readMetadata();
  EXPECT_EQ(trace.type, "MTB");  // null keeps the type
}

TEST(VSKTraceMetadata, BrokenMetadataThrows) {
  TempDir dir;
  EXPECT_THROW(VSKTrace("x", dir.path(), "MTB"), json::parse_error);  // no file
  ostrand_test::writeFile(dir / "metadata", "");
  EXPECT_THROW(VSKTrace("x", dir.path(), "MTB"), json::parse_error);
  ostrand_test::writeFile(dir / "metadata", R"({"device":"a"})");
  EXPECT_THROW(VSKTrace("x", dir.path(), "MTB"), json::out_of_range);
  ostrand_test::writeFile(dir / "metadata", R"([1])");
  EXPECT_THROW(VSKTrace("x", dir.path(), "MTB"), json::type_error);
  ostrand_test::writeFile(dir / "metadata", R"({"typeId":3})");
  EXPECT_THROW(VSKTrace("x", dir.path(), "MTB"), json::type_error);
}

}  // namespace
}  // namespace VSKTspServer
