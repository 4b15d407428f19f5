// The MTB capture's settings tree, its failures without tools and the
// metadata it delivers; the decoded buffer itself is checked on a real run
// through the shell.
#include <gtest/gtest.h>
#include <json/json.h>

#include <stdexcept>

#include "CaptureTestDirs.hpp"
#include "cloud_trace/source/LocalOpManager.hpp"
#include "cloud_trace/source/MtbCaptureOperation.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

using Mtb = LocalOpManager::MtbCaptureOperation;

TEST(MtbSettingsTest, UserBufferSizeReplacesItsEntryInPlace) {
  TempUserDir home;
  Mtb op(0, nullptr, "microbit/CM0P", Json::Value());
  op.configure(parse(R"([{"name":"Receiver Settings","sub_properties":[{"name":"Receiver",)"
                     R"("type":"String","value":"MTB","sub_properties":[)"
                     R"({"name":"Buffer Size","type":"String","value":"4 KB"}]}]}])"),
               nullptr);
  const Json::Value& receiver = op.getSettings()[0]["sub_properties"][0];
  EXPECT_EQ(receiver["value"].asString(), "MTB");
  const Json::Value& list = receiver["sub_properties"];
  ASSERT_EQ(list.size(), 10u);
  const char* names[] = {"Trace Buffer Type", "Trace On",          "Start triggers",
                         "Stop triggers",     "Buffer Size",       "Watermark level",
                         "Stop at watermark", "Halt at watermark", "Synchronize with target",
                         "Hierarchical Decode"};
  for (Json::ArrayIndex i = 0; i < 10; ++i) EXPECT_EQ(list[i]["name"].asString(), names[i]);
  EXPECT_EQ(list[4]["value"].asString(), "4 KB");
}

TEST(MtbCaptureTest, WithoutToolsNothingIsCreatedAndMetadataNamesTheDataFile) {
  TempUserDir home;
  Mtb op(1, nullptr, "cpu_Dsa_0", Json::Value());
  op.configure(Json::Value(), nullptr);
  EXPECT_THROW(
      {
        try {
          op.createHlOperation();
        } catch (const std::runtime_error& e) {
          EXPECT_STREQ(e.what(), "Cannot enable MTB: No target selected");
          throw;
        }
      },
      std::runtime_error);
  EXPECT_FALSE(op.isCreated());
  // Data ready outside Collecting changes nothing and writes nothing.
  op.onDataReady();
  const std::string dir = home.data() + "/live-targets/cpu_Dsa_0/MTB";
  EXPECT_EQ(op.getCaptureDir(), dir);
  EXPECT_FALSE(std::filesystem::exists(dir + "/mtb_data.json"));

  op.exportMetaData();
  op.exportData();
  Json::Value metadata = parse(readText(dir + "/metadata"));
  EXPECT_EQ(metadata["typeId"].asString(), "MTB");
  EXPECT_EQ(metadata["device"].asString(), "cpu_Dsa_0");
  EXPECT_EQ(metadata["dataFile"].asString(), "mtb_data.json");
  EXPECT_EQ(metadata.getMemberNames().size(), 6u);
  EXPECT_EQ(readText(dir + "/mtb_data.json"), "{}\n");
}

}  // namespace
