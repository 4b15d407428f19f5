// The scripting configuration's round trip through its own decoder and
// encoder. The commands as a host sees them are in TranslatorTest.
#include <gtest/gtest.h>
#include <json/json.h>

#include "AsyncInterface/source/ScriptingConfig.hpp"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

TEST(ScriptingConfigTest, ValuesKeepTheirTypeAndEmptyOptionalsVanish) {
  Json::Value in;
  ASSERT_TRUE(Json::Reader().parse(
      R"({"ETB":{"enable":1,"opProp":[]},"MTB":{"enable":true,"opProp":{"name":"g","sub_properties":)"
      R"([{"name":"a","type":"Boolean","value":true},{"name":"b","type":"Number","value":5},)"
      R"({"name":"c","type":"String","value":"5","sub_properties":null,"extra":1}]}}})",
      in));
  auto config = AsyncInterface::Scripting::decodeTraceConfig(in);
  std::string text = Json::FastWriter().write(AsyncInterface::Scripting::encodeTraceConfig(config));
  EXPECT_EQ(text,
            R"({"traceSession":{"ETB":{"enable":true},"MTB":{"enable":true,"opProp":[{"name":"g",)"
            R"("sub_properties":[{"name":"a","type":"Boolean","value":true},{"name":"b","type":"Number",)"
            R"("value":5},{"name":"c","type":"String","value":"5"}]}]}}})"
            "\n");
}

}  // namespace
