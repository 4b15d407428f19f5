// The tool client's registration rules and event routing, against managers
// made in the test; and the tool error object it throws.
#include "tool_access/CloudHLClientBase.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <utility>

#include "tool_access/CloudHLError.hpp"

namespace {

using Qx::Nlv::Hemlock::HLClientBaseIF;

class Managers : public Qx::Nlv::Hemlock::IHemlockManager,
                 public Qx::Nlv::Hemlock::IHemlockJobManager,
                 public CloudHLClientEventIf {
 public:
  int32_t registerClient(HLClientBaseIF* client, int32_t id) override {
    ++registerCalls;
    return registrations.insert({client, id}).second ? 0 : 1;
  }
  int32_t unregisterClient(HLClientBaseIF* client, int32_t id) override {
    return registrations.erase({client, id}) == 1 ? 0 : 1;
  }
  int32_t getTargetId(const char* name, bool) override {
    if (ids.count(name) == 0) throw CloudHLError("unknown target", CloudHLError::Error);
    return ids.at(name);
  }
  int32_t onRunSetup(const char* target) override {
    heard += std::string("run:") + target + ";";
    return 0;
  }
  void onSessionChanged(const char* target) override {
    heard += std::string("session:") + target + ";";
  }
  std::set<std::pair<HLClientBaseIF*, int32_t>> registrations;
  int registerCalls = 0;
  std::map<std::string, int32_t> ids = {{"cpu0", 10}, {"cpu1", 11}};
  std::string heard;
};

TEST(CloudHLClientBase, WithoutInterfacesTheClientRefuses) {
  Managers m;
  CloudHLClientBase bare(&m);
  EXPECT_EQ(bare.getName(), nullptr);
  EXPECT_THAT([&] { bare.attachTarget("cpu0", true); },
              ::testing::Throws<CloudHLError>(::testing::AllOf(
                  ::testing::Property(&CloudHLError::GetErrorText,
                                      ::testing::StrEq("XEV not available")),
                  ::testing::Property(&CloudHLError::GetSeverity, CloudHLError::Error))));
  EXPECT_THROW(bare.detachTarget("cpu0"), CloudHLError);
  EXPECT_THROW(bare.reregister(), CloudHLError);
}

TEST(CloudHLClientBase, AttachDetachAndEvents) {
  Managers m;
  auto client = std::make_unique<CloudHLClientBase>(&m);
  client->init("CloudClient0", 0, &m, &m);
  EXPECT_TRUE(client->attachTarget("cpu0", true));
  EXPECT_TRUE(client->attachTarget("cpu0", true));  // only confirms
  EXPECT_NO_THROW(client->attachTarget("ghost", true));  // unknown: stays unattached
  EXPECT_TRUE(client->attachTarget("cpu1", false));
  EXPECT_EQ(m.registerCalls, 2);
  EXPECT_EQ(client->currentTargetId(), 10);

  EXPECT_TRUE(client->onJobEvent(0, 11));
  EXPECT_TRUE(client->onJobEvent(3, 10));
  EXPECT_TRUE(client->onJobEvent(0, 99));  // unknown id: empty name
  EXPECT_TRUE(client->onJobEvent(7, 10));
  EXPECT_EQ(m.heard, "run:cpu1;session:cpu0;run:;");
  EXPECT_TRUE(client->onClientEvent(5, 1234));
  EXPECT_EQ(client->lastClientEventArgument(), 1234u);

  EXPECT_TRUE(client->detachTarget("cpu0"));  // cpu1 is still attached
  EXPECT_EQ(client->currentTargetId(), -1);
  EXPECT_EQ(client->currentTarget(), "");
  client->attachTarget("cpu0", false);
  client.reset();  // unregisters what is left
  EXPECT_TRUE(m.registrations.empty());
}

TEST(CloudHLClientBase, SameClientByName) {
  Managers m;
  CloudHLClientBase a(&m);
  CloudHLClientBase b(&m);
  a.init("CloudClient0", 0);
  b.init("CloudClient0", 1);
  EXPECT_TRUE(a.isSameClient(&b));
  b.init(nullptr, 1);
  EXPECT_FALSE(a.isSameClient(&b));
}

TEST(CloudHLError, TextsAndDetails) {
  auto* error = new CloudHLError();
  error->PushText("first");  // nothing to keep yet
  EXPECT_STREQ(error->GetDetailedText(), "");
  error->PushText("second");
  error->PushText("third");
  EXPECT_STREQ(error->GetErrorText(), "third");
  EXPECT_STREQ(error->GetDetailedText(), "second\nfirst\n");
  error->AddDetailedInfo("more");
  EXPECT_STREQ(error->GetDetailedText(), "second\nfirst\n\nmore");
  error->Delete();  // heap-made: Delete frees it (the sanitizer run checks)
}

}  // namespace
