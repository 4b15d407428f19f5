// Capture directories and URIs, the settings overlay, what a power capture
// writes and moves, what the other captures do and deliver, and where a
// TDF session's file name comes from and which names are taken, without
// tools.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

#include "CaptureTestDirs.hpp"
#include "cloud_trace/source/EtbCaptureOperation.hpp"
#include "cloud_trace/source/LocalOpManager.hpp"
#include "cloud_trace/source/MtbCaptureOperation.hpp"
#include "cloud_trace/source/TdfCaptureOperation.hpp"
#include "cloud_trace/source/WLCaptureOperation.hpp"
#include "experiments/DataBrokerRouter.hpp"
#include "json_interface/WorkQueue.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace fs = std::filesystem;
using ::testing::StrEq;
using ::testing::ThrowsMessage;
using Op = LocalOpManager::CaptureOperation;
using Etb = LocalOpManager::EtbCaptureOperation;
using Mtb = LocalOpManager::MtbCaptureOperation;
using Tdf = LocalOpManager::TdfCaptureOperation;
using WL = LocalOpManager::WLCaptureOperation;

namespace {

// The receiver's own properties of a settings tree.
const Json::Value& receiverList(const Json::Value& settings) {
  return settings[0]["sub_properties"][0]["sub_properties"];
}

Json::Value userProps(const std::string& receiverList, const std::string& receiver = "WL") {
  return parse(R"([{"name":"Receiver Settings","sub_properties":[{"name":"Receiver",)"
               R"("type":"String","value":")" +
               receiver + R"(","sub_properties":)" + receiverList + "}]}]");
}

// Target, feature, and the directory made for them below <data>.
TEST(TargetDirTest, NamesAndCreatesTheCaptureDirectory) {
  TempUserDir home;
  const char* const cases[][3] = {
      {"cpu", "Wattline", "live-targets/cpu/Wattline"},
      {"", "MTB", "live-targets"},  // no target: the feature is not joined
      {"a//b", "ETB", "live-targets/a/b/ETB"},
      {"file/x", "MTB", "file-targets/file/x/MTB"},
      {"x/file/a", "MTB", "live-targets/x/file/a/MTB"},
      {"file/a/file/b", "MTB", "live-targets/file/a/file/b/MTB"},
      {"board/core0", "TDF", "file-targets/board/core0/TDF"}};
  for (const auto& [target, feature, below] : cases) {
    const std::string dir = LocalOpManager::getTargetDir(target, feature);
    EXPECT_EQ(dir, home.data() + "/" + below);
    EXPECT_TRUE(fs::is_directory(dir)) << dir;
  }
}

TEST(CaptureUriTest, AbsolutePathsGetThreeSlashes) {
  EXPECT_EQ(LocalOpManager::directoryUri("/home/u/x"), "file:///home/u/x");
  EXPECT_EQ(LocalOpManager::directoryUri("C:/data/x"), "file:///C:/data/x");
}

TEST(CopyDirFilesTest, MovesFilesOverwritingAndKeepsOthers) {
  TempUserDir home;
  const std::string from = home.path() + "/from", to = home.path() + "/deep/to";
  fs::create_directories(from);
  LocalOpManager::copyDirFiles(from, to);  // empty source: only the target is made
  EXPECT_TRUE(fs::is_directory(to));
  writeFile(from + "/WLData.bin", "new");
  writeFile(to + "/WLData.bin", "old");
  writeFile(to + "/older.txt", "kept");
  LocalOpManager::copyDirFiles(from, to);
  EXPECT_EQ(readFile(to + "/WLData.bin"), "new");
  EXPECT_EQ(readFile(to + "/older.txt"), "kept");
  EXPECT_FALSE(fs::exists(from + "/WLData.bin"));
  // A source that does not exist is logged, not thrown.
  EXPECT_NO_THROW(LocalOpManager::copyDirFiles(home.path() + "/missing", to));
}

TEST(SettingsMergeTest, ObjectsByMemberArraysOnlyOfTheSameSize) {
  Json::Value dst = parse(R"({"a":{"x":1,"y":2},"l":[1,{"k":1}],"s":5})");
  // A member that is no object in the settings is replaced whole.
  LocalOpManager::mergeSettings(dst, parse(R"({"a":{"y":3,"z":4},"l":[9],"s":{"o":1},"t":true})"));
  EXPECT_EQ(Json::FastWriter().write(dst),
            R"({"a":{"x":1,"y":3,"z":4},"l":[9],"s":{"o":1},"t":true})" "\n");
  // Two arrays of one size merge element by element; scalars in them stay.
  Json::Value list = parse(R"([1,{"k":1}])");
  LocalOpManager::mergeSettings(list, parse(R"([9,{"k":2,"n":3}])"));
  EXPECT_EQ(Json::FastWriter().write(list), R"([1,{"k":2,"n":3}])" "\n");
  LocalOpManager::mergeSettings(list, parse("[7]"));
  EXPECT_EQ(Json::FastWriter().write(list), R"([1,{"k":2,"n":3}])" "\n");
}

TEST(WLFormatTest, FormatFollowsTheCore) {
  TempUserDir home;
  const char* const cases[][2] = {{"LYNX16_CORE", "LYNX"},
                                  {"sim/Cortex_M0plus", "LYNX"},
                                  {"cortex_m4_0", "LPRF"},
                                  {"ArmV6M0", "LYNX"}};
  for (const auto& [target, format] : cases) {
    WL op(0, nullptr, target, Json::Value());
    op.configure(Json::Value(), nullptr);
    EXPECT_EQ(op.getReceiverProperty("Format")["value"].asString(), format) << target;
  }
}

TEST(WLSettingsTest, UserPropertiesReplaceInPlaceOrAppend) {
  TempUserDir home;
  WL op(0, nullptr, "cpu", Json::Value());
  op.configure(userProps(R"([{"name":"Duration","type":"Number","value":5},)"
                         R"({"name":"Extra","type":"Boolean","value":true}])"),
               nullptr);
  const Json::Value& list = receiverList(op.getSettings());
  ASSERT_EQ(list.size(), 8u);
  EXPECT_EQ(list[2]["name"].asString(), "Duration");
  EXPECT_EQ(list[2]["value"].asInt(), 5);
  EXPECT_EQ(list[7]["name"].asString(), "Extra");
  EXPECT_EQ(op.getSettings()[0]["sub_properties"][0]["value"].asString(), "WL");

  // "Receiver Settings" at another index than the defaults: nothing overlaid.
  Json::Value shifted(Json::arrayValue);
  shifted.append(parse(R"({"name":"Other"})"));
  shifted.append(userProps(R"([{"name":"Duration","type":"Number","value":5}])")[0]);
  for (const Json::Value& ignored : {shifted, Json::Value(), parse("{}"), parse("[1,2]")}) {
    op.configure(ignored, nullptr);
    EXPECT_EQ(receiverList(op.getSettings())[2]["value"].asInt(), 20000);
    EXPECT_EQ(receiverList(op.getSettings()).size(), 7u);
  }
}

TEST(WLMetadataTest, WritesMetadataAndAnEmptySupplementToDiskOrBroker) {
  TempUserDir home;
  WL op(3, nullptr, "board/cpu", Json::Value());
  // WLplus as the text "true" is no boolean: the capture stays a plain one.
  op.configure(userProps(R"([{"name":"WLplus","type":"Boolean","value":"true"}])"), nullptr);
  op.exportMetaData();
  const std::string dir = home.data() + "/live-targets/board/cpu/Wattline";
  EXPECT_EQ(op.getCaptureDir(), dir);
  Json::Value metadata = parse(readFile(dir + "/metadata"));
  EXPECT_EQ(metadata["typeId"].asString(), "WL");
  EXPECT_EQ(metadata["device"].asString(), "board/cpu");
  EXPECT_EQ(metadata["dataFile"].asString(), "unknown");
  EXPECT_EQ(metadata["time"].asString().size(), 20u);  // 2026-01-02T03:04:05Z
  EXPECT_EQ(readFile(dir + "/metadataSup.json"), "{}\n");
  // Styled text: three blanks, keys in order.
  EXPECT_NE(readFile(dir + "/metadata").find("{\n   \"cpu\" : \"unknown\",\n"),
            std::string::npos);

  // WLplus true without tools: "WL+", and no state description to add.
  fs::remove_all(dir);
  fs::create_directories(dir);
  VSKTspServer::DataBrokerRouter broker;
  op.configure(userProps(R"([{"name":"WLplus","type":"Boolean","value":true}])"), &broker);
  op.exportMetaData();
  EXPECT_EQ(parse(readFile(dir + "/metadata"))["typeId"].asString(), "WL+");
  EXPECT_EQ(readFile(dir + "/metadataSup.json"), "{}\n");
}

TEST(WLStatesTest, ReadyOnlyFromCollectingAndMovesTheScratchFiles) {
  TempUserDir home;
  WL op(0, nullptr, "cpu", Json::Value());
  op.configure(Json::Value(), nullptr);
  const std::string scratch = LocalOpManager::getScratchDir(".Wattline");
  writeFile(scratch + "/WLData.bin", "stream");

  op.onDataReady();  // never armed: nothing moves
  EXPECT_EQ(op.getState(), WL::Idle);
  EXPECT_TRUE(fs::exists(scratch + "/WLData.bin"));

  low::promise<void> ready = op.getDataReady();
  op.enable(true);  // no tools: the start fails, the state is Armed all the same
  EXPECT_EQ(op.getState(), WL::Armed);
  EXPECT_TRUE(ready.sameState(op.getDataReady()));
  op.onDataReady();  // Armed, not Collecting
  EXPECT_TRUE(fs::exists(scratch + "/WLData.bin"));
  op.onDataCollecting();
  op.onDataCollecting();
  EXPECT_EQ(op.getState(), WL::Collecting);
  op.onDataReady();
  EXPECT_EQ(op.getState(), WL::Idle);
  EXPECT_EQ(readFile(op.getCaptureDir() + "/WLData.bin"), "stream");
  EXPECT_FALSE(fs::exists(scratch + "/WLData.bin"));
  // The promise is settled on the worker, never on the stopping thread.
  WorkQueue::instance().drain();
  EXPECT_EQ(ready.status(), low::promise<void>::resolved);
  op.enable(true);  // a settled promise is replaced at the next arming
  EXPECT_FALSE(ready.sameState(op.getDataReady()));
}

TEST(MtbSettingsTest, UserBufferSizeReplacesItsEntryInPlace) {
  TempUserDir home;
  Mtb op(0, nullptr, "microbit/CM0P", Json::Value());
  op.configure(userProps(R"([{"name":"Buffer Size","type":"String","value":"4 KB"}])", "MTB"),
               nullptr);
  EXPECT_EQ(op.getSettings()[0]["sub_properties"][0]["value"].asString(), "MTB");
  std::vector<std::string> names;
  for (const Json::Value& p : receiverList(op.getSettings())) names.push_back(p["name"].asString());
  EXPECT_EQ(names, (std::vector<std::string>{
                       "Trace Buffer Type", "Trace On", "Start triggers", "Stop triggers",
                       "Buffer Size", "Watermark level", "Stop at watermark", "Halt at watermark",
                       "Synchronize with target", "Hierarchical Decode"}));
  EXPECT_EQ(receiverList(op.getSettings())[4]["value"].asString(), "4 KB");
}

// The instruction and file captures without tools: creation fails with the
// capture's own words and makes nothing, data ready outside Collecting
// writes nothing, and the metadata and the empty data file name the file.
TEST(NoToolsTest, NothingIsCreatedAndTheMetadataNamesTheDataFile) {
  TempUserDir home;
  struct {
    std::unique_ptr<Op> op;
    const char* error;
    const char* dir;  // below <data>
    const char* dataFile;
  } cases[] = {
      {std::make_unique<Mtb>(1, nullptr, "cpu_Dsa_0", Json::Value()),
       "Cannot enable MTB: No target selected", "live-targets/cpu_Dsa_0/MTB", "mtb_data.json"},
      {std::make_unique<Etb>(0, nullptr, "mps2/CM4", Json::Value(), nullptr),
       "Cannot enable ETB: No target selected", "live-targets/mps2/CM4/ETB", "etb_data.json"},
      // The file name is checked before any tool call.
      {std::make_unique<Tdf>(0, nullptr, "rec",
                             parse(R"({"rec":{"TDF":{"opProp":{"File":"relative/a.tdf"}}}})")),
       "Invalid TDF file name: relative/a.tdf", "file-targets/rec/TDF", "tdf_data.json"}};
  for (auto& [op, error, below, dataFile] : cases) {
    SCOPED_TRACE(op->getType());
    op->configure(Json::Value(), nullptr);
    EXPECT_THAT([&] { op->createHlOperation(); }, ThrowsMessage<std::runtime_error>(StrEq(error)));
    EXPECT_FALSE(op->isCreated());
    const std::string dir = home.data() + "/" + below;
    EXPECT_EQ(op->getCaptureDir(), dir);
    op->onDataReady();
    EXPECT_FALSE(fs::exists(dir + "/" + dataFile));
    op->exportMetaData();
    op->exportData();
    const Json::Value metadata = parse(readFile(dir + "/metadata"));
    EXPECT_EQ(metadata["typeId"].asString(), op->getType());
    EXPECT_EQ(metadata["device"].asString(), op->getTarget());
    EXPECT_EQ(metadata["dataFile"].asString(), dataFile);
    EXPECT_EQ(metadata.getMemberNames().size(), 6u);
    EXPECT_EQ(readFile(dir + "/" + dataFile), "{}\n");
  }
}

// ---------------------------------------------------------------- TDF file names

// A TDF opProp and the file it names, in either form.
TEST(TdfOpPropTest, FindsTheFileInEitherForm) {
  const char* const cases[][2] = {
      {R"({"File":"/tmp/a.tdf"})", "/tmp/a.tdf"},
      {R"([{"name":"Other"},{"name":"File Settings","sub_properties":)"
       R"([{"name":"Mode","value":1},{"name":"File","value":"/r/b.tdf"}]}])",
       "/r/b.tdf"},
      // An object without File falls through to the tree form and finds nothing.
      {R"({"Path":"/tmp/a.tdf"})", ""},
      {R"([{"name":"File Settings","sub_properties":[]}])", ""},
      {"null", ""}};
  for (const auto& [opProp, path] : cases) {
    EXPECT_EQ(Tdf::pathFromOpProp(parse(opProp)), path) << opProp;
  }
}

TEST(TdfPathTest, OnlyAbsoluteExistingFilesAfterNormalisation) {
  TempUserDir home;
  const std::string file = home.path() + "/run.tdf";
  writeFile(file, "TDF2");

  std::string path = home.path() + "/sub/../run.tdf";
  EXPECT_TRUE(Tdf::normalizePath(path));
  EXPECT_EQ(path, file);

  // A path of this system keeps its leading "/"; a drive-letter URI path
  // loses it, and is then no absolute path here.
  path = "/C:/data/a.tdf";
  EXPECT_FALSE(Tdf::normalizePath(path));
  EXPECT_EQ(path, "C:/data/a.tdf");

  for (std::string bad : {std::string(), std::string("run.tdf"), home.path() + "/none.tdf"}) {
    EXPECT_FALSE(Tdf::normalizePath(bad)) << bad;
  }
}

}  // namespace
