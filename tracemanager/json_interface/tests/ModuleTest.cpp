// The module as a host meets it: loaded with dlopen, driven through its
// exports and the two text interfaces.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include "TestSink.hpp"
#include "TestSupport.hpp"
#include "json_interface/ModuleConnection.hpp"

using JSONInterface::ExternalModule::ModuleConnection;
using namespace std::chrono_literals;

namespace {

class RecordingHost final : public HostConnection, public TestSink {
 public:
  std::function<void(const std::string&)> onReceive;  // runs before the text is kept

  void receive(const char* text) override {
    if (onReceive) onReceive(text);
    add(text);
  }
  void closed() override { ++closedCount; }
  std::atomic<int> closedCount{0};
};

// A gate that a receive() can be held at, so the module's worker is busy;
// once open, every later hold passes.
struct Gate {
  void hold() {
    if (!held.exchange(true)) entered.set_value();
    opened.wait();
  }
  void waitEntered() { entered.get_future().wait(); }
  void open() { opening.set_value(); }

  std::atomic<bool> held{false};
  std::promise<void> entered, opening;
  std::shared_future<void> opened = opening.get_future().share();
};

class ModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The module starts its per-user tree with the first connection; it goes
    // to a temporary home, never the real one.
    handle = dlopen(OSTRAND_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    list = reinterpret_cast<ListJSONInterfaceModulesFn>(dlsym(handle, "ListJSONInterfaceModules"));
    create = reinterpret_cast<CreateJSONInterfaceModuleFn>(dlsym(handle, "CreateJSONInterfaceModule"));
    ASSERT_NE(list, nullptr);
    ASSERT_NE(create, nullptr);
  }
  void TearDown() override {
    if (handle != nullptr) dlclose(handle);
  }
  void unload() {
    dlclose(handle);
    handle = nullptr;
  }

  // Hosts outlive the module: members are destroyed after TearDown has
  // unloaded it, so no worker can still be inside one of their receive().
  RecordingHost hosts[3];
  ostrand_test::TempHome home;
  void* handle = nullptr;
  ListJSONInterfaceModulesFn list = nullptr;
  CreateJSONInterfaceModuleFn create = nullptr;
};

constexpr const char* kStop = R"({"command":"cloudTrace.stopSession","id":1})";

TEST_F(ModuleTest, ExportsAreBoundByPlainNames) {
  for (const char* name : {"ListJSONInterfaceModules", "CreateJSONInterfaceModule",
                           "InitializeSymbolManagerAPI", "InitializeDisAsmManagerAPI", "CreateServer"}) {
    EXPECT_NE(dlsym(handle, name), nullptr) << name;
  }
  // Only the system's entry points and the exported error class are visible.
  EXPECT_EQ(dlsym(handle, "_ZN9WorkQueue8instanceEv"), nullptr);
  EXPECT_NE(dlsym(handle, "_ZN2Qx3Nlv7Hemlock12hemlockErrorC1Ev"), nullptr);
}

TEST_F(ModuleTest, CreateServerGivesAServerObjectToItsCaller) {
  auto createServer = reinterpret_cast<CreateServerFn>(dlsym(handle, "CreateServer"));
  ASSERT_NE(createServer, nullptr);
  void* first = createServer();
  void* second = createServer();
  EXPECT_NE(first, nullptr);
  EXPECT_NE(second, first);
#ifdef __SANITIZE_ADDRESS__
  // The caller owns them and the module gives no way to free them; a host
  // that wants one keeps it for its life.
  __lsan_ignore_object(first);
  __lsan_ignore_object(second);
#endif
}

TEST_F(ModuleTest, NameTableAndCreationByExactName) {
  uint32_t count = 0;
  const char* const* names = list(&count);
  ASSERT_EQ(count, 1u);
  EXPECT_STREQ(names[0], "trace");
  RecordingHost& host = hosts[0];
  for (const char* wrong : {"Trace", "trace ", "", "tracer"}) EXPECT_EQ(create(wrong, &host), nullptr);
  ModuleConnection* c = create("trace", &host);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(list(&count), names);
  EXPECT_EQ(count, 1u);
  c->release();
  EXPECT_EQ(host.closedCount.load(), 0);  // release never causes closed
}

TEST_F(ModuleTest, ConnectionsShareOneWorkerAndReleaseKeepsTheOthers) {
  RecordingHost& a = hosts[0];
  RecordingHost& b = hosts[1];
  RecordingHost& c = hosts[2];
  ModuleConnection* ca = create("trace", &a);
  ModuleConnection* cb = create("trace", &b);
  ModuleConnection* cc = create("trace", &c);
  std::thread::id workerA, workerC;
  a.onReceive = [&](const std::string&) { workerA = std::this_thread::get_id(); };
  c.onReceive = [&](const std::string&) { workerC = std::this_thread::get_id(); };
  cb->release();
  ca->send(kStop);
  cc->send(kStop);
  ASSERT_TRUE(a.waitFor(1));
  ASSERT_TRUE(c.waitFor(1));
  EXPECT_EQ(a.texts()[0], R"({"response":1})");
  EXPECT_EQ(workerA, workerC);
  EXPECT_NE(workerA, std::this_thread::get_id());
  EXPECT_TRUE(b.texts().empty());
  ca->release();
  cc->release();
}

TEST_F(ModuleTest, SendReturnsAtOnceWhileTheWorkerIsBusy) {
  RecordingHost& busy = hosts[0];
  RecordingHost& other = hosts[1];
  Gate gate;
  busy.onReceive = [&](const std::string&) { gate.hold(); };
  ModuleConnection* cBusy = create("trace", &busy);
  ModuleConnection* cOther = create("trace", &other);
  cBusy->send(kStop);
  gate.waitEntered();  // the worker is now held inside a receive()
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i) cOther->send(kStop);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_TRUE(other.texts().empty());  // nothing ran on the caller's thread
  gate.open();
  ASSERT_TRUE(other.waitFor(100));
  cBusy->release();
  cOther->release();
}

TEST_F(ModuleTest, ReleaseWithQueuedCommandsSendsNothingAfterwards) {
  RecordingHost& busy = hosts[0];
  RecordingHost& victim = hosts[1];
  Gate gate;
  busy.onReceive = [&](const std::string&) { gate.hold(); };
  ModuleConnection* cBusy = create("trace", &busy);
  ModuleConnection* cVictim = create("trace", &victim);
  cBusy->send(kStop);
  gate.waitEntered();
  for (int i = 0; i < 20; ++i) cVictim->send(R"({"command":"listCommands","id":2})");
  cVictim->release();  // its tasks are still queued behind the held one
  gate.open();
  cBusy->send(kStop);
  ASSERT_TRUE(busy.waitFor(2));  // the worker went past the released tasks
  EXPECT_TRUE(victim.texts().empty());
  cBusy->release();
}

TEST_F(ModuleTest, ReleaseDuringARunningCommandStopsItsReply) {
  RecordingHost& host = hosts[0];
  Gate gate;
  // getTestString sends an event and then its reply; hold the worker inside
  // the event while the host releases on another thread.
  host.onReceive = [&](const std::string& text) {
    if (text.find("\"event\"") != std::string::npos) gate.hold();
  };
  ModuleConnection* c = create("trace", &host);
  c->send(R"({"command":"cloudTrace.getTestString","id":5,"data":["x"]})");
  gate.waitEntered();
  std::atomic<bool> released{false};
  size_t seenAtRelease = 0;
  std::thread releaser([&] {
    c->release();
    seenAtRelease = host.texts().size();
    released = true;
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(released.load());  // release waits for the receive() in progress
  gate.open();
  releaser.join();
  std::this_thread::sleep_for(100ms);
  auto texts = host.texts();
  // The reply may slip in before release takes the host link, never after.
  EXPECT_EQ(texts.size(), seenAtRelease);
  ASSERT_GE(texts.size(), 1u);
  EXPECT_NE(texts[0].find("cloudTrace.traceEvent"), std::string::npos);
}

TEST_F(ModuleTest, HostMayReleaseFromInsideReceive) {
  RecordingHost& host = hosts[0];
  ModuleConnection* c = create("trace", &host);
  std::promise<void> done;
  host.onReceive = [&](const std::string&) {
    c->release();
    done.set_value();
  };
  c->send(kStop);
  ASSERT_EQ(done.get_future().wait_for(5s), std::future_status::ready);
}

TEST_F(ModuleTest, UnloadClosesEachOpenConnectionOnce) {
  RecordingHost& open = hosts[0];
  RecordingHost& released = hosts[1];
  create("trace", &open);
  ModuleConnection* r = create("trace", &released);
  r->release();
  unload();
  EXPECT_EQ(open.closedCount.load(), 1);
  EXPECT_EQ(released.closedCount.load(), 0);
}

}  // namespace
