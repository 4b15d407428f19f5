// The tool client's registration rules and event routing, against managers
// made in the test; and the tool error object it throws.
#include "CloudHLClientBase.hpp"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <utility>

#include "CloudHLError.hpp"

namespace {

class Manager : public Qx::Nlv::Hemlock::IHemlockManager {
 public:
  int32_t registerClient(Qx::Nlv::Hemlock::HLClientBaseIF* client, int32_t id) override {
    registrations.insert({client, id});
    ++registerCalls;
    return 0;
  }
  int32_t unregisterClient(Qx::Nlv::Hemlock::HLClientBaseIF* client, int32_t id) override {
    registrations.erase({client, id});
    return 0;
  }
  std::set<std::pair<Qx::Nlv::Hemlock::HLClientBaseIF*, int32_t>> registrations;
  int registerCalls = 0;
};

class JobManager : public Qx::Nlv::Hemlock::IHemlockJobManager {
 public:
  int32_t getTargetId(const char* name, bool) override {
    auto found = ids.find(name);
    if (found == ids.end()) throw CloudHLError("unknown target", CloudHLError::Error);
    return found->second;
  }
  std::map<std::string, int32_t> ids = {{"cpu0", 10}, {"cpu1", 11}};
};

class Events : public CloudHLClientEventIf {
 public:
  int32_t onRunSetup(const char* target) override {
    heard += std::string("run:") + target + ";";
    return 0;
  }
  void onSessionChanged(const char* target) override {
    heard += std::string("session:") + target + ";";
  }
  std::string heard;
};

class CloudHLClientBaseTest : public ::testing::Test {
 protected:
  CloudHLClientBaseTest() : client(std::make_unique<CloudHLClientBase>(&events)) {
    client->init("CloudClient0", 0, &manager, &jobs);
  }
  Manager manager;
  JobManager jobs;
  Events events;
  std::unique_ptr<CloudHLClientBase> client;
};

TEST_F(CloudHLClientBaseTest, WithoutInterfacesTheClientRefuses) {
  CloudHLClientBase bare(&events);
  EXPECT_EQ(bare.getName(), nullptr);
  try {
    bare.attachTarget("cpu0", true);
    FAIL() << "no error";
  } catch (const CloudHLError& e) {
    EXPECT_STREQ(e.GetErrorText(), "XEV not available");
    EXPECT_EQ(e.GetSeverity(), CloudHLError::Error);
  }
  EXPECT_THROW(bare.detachTarget("cpu0"), CloudHLError);
  EXPECT_THROW(bare.reregister(), CloudHLError);
}

TEST_F(CloudHLClientBaseTest, AttachTwiceRegistersOnce) {
  EXPECT_TRUE(client->attachTarget("cpu0", true));
  EXPECT_TRUE(client->attachTarget("cpu0", true));
  EXPECT_EQ(manager.registerCalls, 1);
  EXPECT_NO_THROW(client->attachTarget("ghost", true));  // unknown: stays unattached
  EXPECT_EQ(manager.registerCalls, 1);
  EXPECT_EQ(client->currentTargetId(), 10);
  EXPECT_EQ(client->currentTarget(), "cpu0");
  EXPECT_TRUE(client->isActive());
}

TEST_F(CloudHLClientBaseTest, DetachPrimaryClearsCurrent) {
  client->attachTarget("cpu0", true);
  client->attachTarget("cpu1", false);
  EXPECT_TRUE(client->detachTarget("cpu0"));  // cpu1 is still attached
  EXPECT_EQ(client->currentTargetId(), -1);
  EXPECT_EQ(client->currentTarget(), "");
  EXPECT_FALSE(client->detachTarget("cpu1"));
  EXPECT_TRUE(manager.registrations.empty());
}

TEST_F(CloudHLClientBaseTest, JobEventsReachTheHandlerByName) {
  client->attachTarget("cpu0", false);
  client->attachTarget("cpu1", false);
  EXPECT_TRUE(client->onJobEvent(0, 11));
  EXPECT_TRUE(client->onJobEvent(3, 10));
  EXPECT_TRUE(client->onJobEvent(0, 99));  // unknown id: empty name
  EXPECT_TRUE(client->onJobEvent(4, 10));
  EXPECT_TRUE(client->onJobEvent(7, 10));
  EXPECT_EQ(events.heard, "run:cpu1;session:cpu0;run:;");
  EXPECT_TRUE(client->onClientEvent(5, 1234));
  EXPECT_EQ(client->lastClientEventKind(), 5u);
  EXPECT_EQ(client->lastClientEventArgument(), 1234u);
}

TEST_F(CloudHLClientBaseTest, NamesAndDestruction) {
  CloudHLClientBase other(&events);
  other.init("CloudClient0", 1);
  EXPECT_TRUE(client->isSameClient(&other));
  other.init(nullptr, 1);
  EXPECT_FALSE(client->isSameClient(&other));
  EXPECT_EQ(other.getName(), nullptr);

  client->attachTarget("cpu0", true);
  client->attachTarget("cpu1", false);
  EXPECT_EQ(client->reregister(), 0);
  EXPECT_TRUE(client->isReregistered());
  client.reset();
  EXPECT_TRUE(manager.registrations.empty());
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
  CloudHLError empty;
  empty.AddDetailedInfo("only");
  EXPECT_STREQ(empty.GetDetailedText(), "only");
  error->Delete();  // heap-made: Delete frees it (the sanitizer run checks)
}

}  // namespace
