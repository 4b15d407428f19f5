// Where a TDF session's file name comes from and which names are taken;
// what the capture makes of a name it refuses is in CaptureOperationTest.
#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <string>

#include "CaptureTestDirs.hpp"
#include "cloud_trace/source/LocalOpManager.hpp"
#include "cloud_trace/source/TdfCaptureOperation.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

using Tdf = LocalOpManager::TdfCaptureOperation;

struct OpPropCase {
  const char* opProp;
  const char* path;
};

class TdfOpPropTest : public ::testing::TestWithParam<OpPropCase> {};

TEST_P(TdfOpPropTest, FindsTheFileInEitherForm) {
  EXPECT_EQ(Tdf::pathFromOpProp(parse(GetParam().opProp)), GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, TdfOpPropTest,
    ::testing::Values(
        OpPropCase{R"({"File":"/tmp/a.tdf"})", "/tmp/a.tdf"},
        OpPropCase{R"([{"name":"Other"},{"name":"File Settings","sub_properties":)"
                   R"([{"name":"Mode","value":1},{"name":"File","value":"/r/b.tdf"}]}])",
                   "/r/b.tdf"},
        // An object without File falls through to the tree form and finds nothing.
        OpPropCase{R"({"Path":"/tmp/a.tdf"})", ""},
        OpPropCase{R"([{"name":"File Settings","sub_properties":[]}])", ""},
        OpPropCase{"null", ""}));

TEST(TdfPathTest, OnlyAbsoluteExistingFilesAfterNormalisation) {
  TempUserDir home;
  const std::string file = home.root() + "/run.tdf";
  std::ofstream(file) << "TDF2";

  std::string path = home.root() + "/sub/../run.tdf";
  EXPECT_TRUE(Tdf::normalizePath(path));
  EXPECT_EQ(path, file);

  // A path of this system keeps its leading "/"; a drive-letter URI path
  // loses it, and is then no absolute path here.
  path = "/C:/data/a.tdf";
  EXPECT_FALSE(Tdf::normalizePath(path));
  EXPECT_EQ(path, "C:/data/a.tdf");

  for (std::string bad : {std::string(), std::string("run.tdf"), home.root() + "/none.tdf"}) {
    EXPECT_FALSE(Tdf::normalizePath(bad)) << bad;
  }
}

}  // namespace
