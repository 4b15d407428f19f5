// The simulated debug environment through its libraries and control entry
// point: scenarios, the events of connect, run, halt and stop in their
// order and on the simulation's thread, operations configured by property
// trees, and decoders handing out rows through the column model.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hemlock/ToolEntryPoints.hpp"
#include "hemlock/hemlockErrorIF.hpp"
#include "sim/SimControl.hpp"

namespace {

using namespace Qx::Nlv;

template <typename F>
F entry(const char* library, const char* name) {
  void* handle = dlopen((std::string(OSTRAND_TOOL_DIR) + "/lib" + library + ".so").c_str(), RTLD_NOW);
  return handle != nullptr ? reinterpret_cast<F>(dlsym(handle, name)) : nullptr;
}

const auto loadScenario = entry<OstrandSim_LoadScenario_t>("hemlock", "OstrandSim_LoadScenario");
const auto lastError = entry<OstrandSim_LastError_t>("hemlock", "OstrandSim_LastError");
const auto simRun = entry<OstrandSim_Run_t>("hemlock", "OstrandSim_Run");
const auto simHalt = entry<OstrandSim_Halt_t>("hemlock", "OstrandSim_Halt");
const auto waitHalted = entry<OstrandSim_WaitHalted_t>("hemlock", "OstrandSim_WaitHalted");
const auto simConnect = entry<OstrandSim_Connect_t>("hemlock", "OstrandSim_Connect");
const auto getNumCpu = entry<GetNumCpu_t>("PBATargetAdapter", "GetNumCpu");
const auto sessions = entry<XEVT_GetSessionManager_t>("qx_xevt_session", "XEVT_GetSessionManager");
const auto createFoundry = entry<CreateChannelFoundry_t>("ChannelFoundry", "CreateChannelFoundry");

// Records every event with the thread it came on.
class Recorder final : public Hemlock::PBATargetAdapterEventListener,
                       public Trace::CTargetStateNotification,
                       public Trace::ChannelClient {
 public:
  void adapterAdded(const char* n) override { add(std::string("added ") + n); }
  void adapterRemoved(const char* n) override { add(std::string("removed ") + n); }
  void OnTargetStateChanged(const char* t, int32_t s) override { add(std::string("state ") + t + " " + std::to_string(s)); }
  void reservedTargetSlot() override {}
  void OnTargetListChanged() override {}
  void OnChannelEvent(const char* cpu, const Trace::ChannelEvent& e) override {
    add(std::string("channel ") + cpu + " " + std::to_string(e.kind) + " " + e.text);
  }
  void OnTraceOperationStart(const char*, uint32_t, const char*) override {}
  void OnTraceOperationProgress(const char*, uint32_t, const char*, double) override {}
  void OnTraceOperationEnd(const char*, uint32_t, const char*, double) override {}
  void OnFileLoaded(const char*, const char*, const char*) override {}
  void reservedE() override {}

  void add(const std::string& e) {
    std::lock_guard<std::mutex> g(mutex);
    events.push_back(e);
    threads.push_back(std::this_thread::get_id());
    changed.notify_all();
  }
  // Waits until `text` has come; the events so far.
  std::vector<std::string> until(const std::string& text) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(10),
                     [&] { return std::find(events.begin(), events.end(), text) != events.end(); });
    return events;
  }
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> events;
  std::vector<std::thread::id> threads;
};

class Client final : public Hemlock::HLClientBaseIF {
 public:
  explicit Client(Recorder& r) : recorder(r) {}
  bool isSameClient(HLClientBaseIF*) override { return false; }
  bool init(const char*, uint32_t) override { return true; }
  bool attachTarget(const char*, bool) override { return true; }
  int32_t reregister() override { return 0; }
  bool onJobEvent(uint32_t kind, uint64_t id) override {
    recorder.add("job " + std::to_string(kind) + " " + std::to_string(id));
    return true;
  }
  bool onClientEvent(uint32_t, uint64_t) override { return true; }
  int32_t reservedA() override { return 0; }
  void jobHookFive() override {}
  void jobHookFour() override {}
  int32_t clientHookA() override { return 0; }
  int32_t clientHookB() override { return 0; }
  int32_t reservedB() override { return 0; }
  int32_t reservedC() override { return -1; }
  const char* getName() override { return "test"; }
  bool init(const char*, uint32_t, Hemlock::IHemlockManager*, Hemlock::IHemlockJobManager*) override { return true; }
  bool detachTarget(const char*) override { return true; }
  int32_t reservedD() override { return 0; }
  Recorder& recorder;
};

struct Rows {
  std::vector<std::string> names;
  std::vector<std::vector<std::string>> cells;  // "" when a cell has no value
};

// Reads every row of a CPU's live decoder the way the module does: the
// column model first, then blocks from seek position 0, then 3.
Rows decode(Trace::IChannelFoundry* foundry, Trace::IChannelServer* server, const char* cpu,
            const char* receiver, uint32_t block) {
  Trace::IChannelDriver* driver = nullptr;
  EXPECT_TRUE(server->GetChannelDriver(cpu, driver));
  Trace::IDecoder* decoder = nullptr;
  foundry->CreateDecoder(driver, receiver, nullptr, nullptr, decoder);
  Rows out;
  uint32_t count = 0, rowSize = 0;
  decoder->getColumnCount(count);
  std::vector<uint32_t> offsets, sizes;
  std::vector<bool> strings;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t id = 0, bits = 0, size = 0;
    bool isString = false;
    const char *name = nullptr, *t1 = nullptr, *t2 = nullptr;
    decoder->getColumnInfo(i, id, bits, isString, name, t1, t2);
    decoder->prepareColumn(i, isString);
    decoder->bitsToBytes(bits, size);
    out.names.push_back(name);
    offsets.push_back(rowSize);
    sizes.push_back(isString ? 6 : size);
    strings.push_back(isString);
    rowSize += sizes.back();
  }
  uint32_t validBytes = (count + 7) / 8;
  std::vector<uint8_t> data(rowSize * block), valid(validBytes * block);
  std::vector<Trace::TracePosition> positions(block);
  for (uint32_t seek = Trace::kSeekStart;; seek = Trace::kSeekContinue) {
    uint32_t rows = 0;
    std::string text;
    decoder->SeekRead(seek, 0, {}, block, rows, data.data(), positions.data(), valid.data(), text);
    for (uint32_t r = 0; r < rows; ++r) {
      std::vector<std::string> cells;
      for (uint32_t c = 0; c < count; ++c) {
        const uint8_t* cell = &data[r * rowSize + offsets[c]];
        if ((valid[r * validBytes + c / 8] & (1u << (c % 8))) == 0) {
          cells.emplace_back();
        } else if (strings[c]) {
          uint32_t at = 0;
          uint16_t len = 0;
          std::memcpy(&at, cell, 4);
          std::memcpy(&len, cell + 4, 2);
          cells.push_back(text.substr(at, len));
        } else {
          uint64_t v = 0;
          std::memcpy(&v, cell, sizes[c]);
          char hex[24];
          std::snprintf(hex, sizeof hex, "%llX", static_cast<unsigned long long>(v));
          cells.emplace_back(hex);
        }
      }
      out.cells.push_back(cells);
    }
    if (rows < block) break;
  }
  foundry->DestroyDecoder(decoder);
  return out;
}

// Property trees as the module builds them.
Xevt::IProperty* tree(Xevt::IOperationServer* s, const std::string& receiver,
                      const std::vector<Xevt::IProperty*>& settings) {
  Xevt::IProperty* root = s->makeGroup("Receiver Settings");
  Xevt::IProperty* rec = s->makeString("Receiver", receiver.c_str());
  for (Xevt::IProperty* p : settings) {
    rec->addChild(p);
    p->release();
  }
  root->addChild(rec);
  rec->release();
  return root;
}

TargetOperations::IOperation6* configure(Xevt::IOperationServer* s, Xevt::IProperty* root) {
  auto* op = dynamic_cast<TargetOperations::IOperation6*>(s->getOperation());
  op->setProperties(&root, 1);
  root->release();
  EXPECT_TRUE(op->enable(true)) << op->getErrorText();
  return op;
}

class SimulationTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(loadScenario(""), 0) << lastError(); }
  void TearDown() override {
    for (const char* cpu : {"CM0P", "CM4"}) simHalt(cpu), waitHalted(cpu, 5000);
  }
  std::string dir() {
    auto d = std::filesystem::temp_directory_path() / ("toolsim-" + std::to_string(getpid()));
    std::filesystem::create_directories(d);
    return d.string();
  }
};

TEST_F(SimulationTest, BrokenScenariosSayWhatIsWrongAndKeepTheActiveOne) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"{", "not JSON"},
      {R"({"name":"x","devices":[]})", "'devices' must be a non-empty array"},
      {R"({"name":"x","devices":[{"name":"D","id":1,"nodes":[{"name":"C","type":"cpu","kind":99}]}]})",
       "devices[0].nodes[0]: 'kind' must be one of"},
      {R"({"name":"x","devices":[{"name":"D","id":1,"nodes":[{"name":"C","type":"cpu","kind":36,
          "program":"nowhere.elf","machine":"m","clock_hz":1}]}]})", "file not found"},
      {R"({"name":"x","devices":[{"name":"D","id":1,"nodes":[{"name":"C","type":"cpu","kind":36,
          "program":"/bin/sh","machine":"m","clock_hz":1,"jstate":{"name":"J","version":3,"bitFields":[]}}],
          "routes":[{"source":"C","receiver":"ITM"}]}]})", "'version' must be 2, 4 or 5"},
      {R"({"name":"x","devices":[{"name":"D","id":1,"nodes":[{"name":"C","type":"cpu","kind":36,
          "program":"/bin/sh","machine":"m","clock_hz":1}],"routes":[{"source":"C","receiver":"WL","sink":"Z"}]}]})",
       "routes[0]: 'sink' must name a node of this device"},
  };
  std::string file = dir() + "/broken.json";
  for (const auto& [text, expected] : cases) {
    std::ofstream(file) << text;
    EXPECT_EQ(loadScenario(file.c_str()), -1);
    EXPECT_NE(std::string(lastError()).find(expected), std::string::npos) << lastError();
  }
  EXPECT_EQ(getNumCpu(), 2);  // the default scenario stays active
}

TEST_F(SimulationTest, RunHaltAndStopFireTheirEventsInOrderOnTheSimulationThread) {
  Recorder rec;
  entry<AddAdapterEventConsumer_t>("PBATargetAdapter", "AddAdapterEventConsumer")(&rec);
  entry<AddTargetEventConsumer_t>("PBATargetAdapter", "AddTargetEventConsumer")(&rec);
  Hemlock::IHemlockManager* manager = nullptr;
  Hemlock::IHemlockJobManager* jobs = nullptr;
  entry<GetHemlockMgrIF_t>("hemlock", "GetHemlockMgrIF")(&manager);
  entry<GetHemlockJobMgrIF_t>("hemlock", "GetHemlockJobMgrIF")(&jobs);
  Client client(rec);
  int32_t id = jobs->getTargetId("CM0P", true);
  manager->registerClient(&client, id);
  Trace::IChannelFoundry* foundry = createFoundry();
  Trace::IChannelServer* server = nullptr;
  foundry->CreateChannelServer(server, 1);
  server->RegisterForEvents(&rec);

  ASSERT_EQ(simConnect("CM0P"), 0) << lastError();
  ASSERT_EQ(simRun("CM0P", 0), 0) << lastError();
  EXPECT_EQ(simRun("CM0P", 0), -3);
  EXPECT_NE(std::string(lastError()).find("already running"), std::string::npos);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(simHalt("CM0P"), 0);
  ASSERT_EQ(waitHalted("CM0P", 5000), 0);
  Trace::IChannelDriver* driver = nullptr;
  server->GetChannelDriver("CM0P", driver);
  const char* text = nullptr;
  driver->StopRecording(text);
  EXPECT_STREQ(text, "");
  std::vector<std::string> events = rec.until("channel CM0P 11 Stopped on user request");
  const std::vector<std::string> expected = {
      "added CM0P", "state CM0P 1", "state CM0P 2", "job 0 " + std::to_string(id),
      "channel CM0P 6 Recording", "state CM0P 6", "state CM0P 7", "channel CM0P 11 Stopped on user request"};
  EXPECT_EQ(events, expected);
  for (std::thread::id t : rec.threads) EXPECT_NE(t, std::this_thread::get_id());

  manager->unregisterClient(&client, id);
  entry<RemoveAdapterEventConsumer_t>("PBATargetAdapter", "RemoveAdapterEventConsumer")(&rec);
  entry<RemoveTargetEventConsumer_t>("PBATargetAdapter", "RemoveTargetEventConsumer")(&rec);
  foundry->DestroyChannelServer(server, 0);
  entry<DestroyChannelFoundry_t>("ChannelFoundry", "DestroyChannelFoundry")(foundry);
}

TEST_F(SimulationTest, MtbOperationSettingsShapeTheRecordedRows) {
  char error[Xevt::kErrorTextSize] = {};
  Xevt::ISession* session = sessions()->openLiveSession(error, sizeof error);
  ASSERT_NE(session, nullptr) << error;
  Xevt::IOperationServer* s = session->getOperationServer("CM0P", error, sizeof error);
  sessions()->releaseSession(session);
  ASSERT_NE(s, nullptr) << error;

  auto* bad = dynamic_cast<TargetOperations::IOperation6*>(s->getOperation());
  Xevt::IProperty* root = tree(s, "MTB", {s->makeString("Buffer Size", "lots")});
  try {
    bad->setProperties(&root, 1);
    ADD_FAILURE() << "a buffer size that is no size was taken";
  } catch (Hemlock::hemlockErrorIF& e) {
    EXPECT_NE(std::string(e.GetErrorText()).find("Buffer Size 'lots'"), std::string::npos);
  }
  root->release();
  bad->release();

  // 64 bytes one-shot: eight packets, the recording stops itself when full.
  auto* op = configure(s, tree(s, "MTB", {s->makeString("Buffer Size", "64 Bytes"),
                                          s->makeString("Trace Buffer Type", "One-shot"),
                                          s->makeBoolean("Hierarchical Decode", false)}));
  Recorder rec;
  Trace::IChannelFoundry* foundry = createFoundry();
  Trace::IChannelServer* server = nullptr;
  foundry->CreateChannelServer(server, 1);
  server->RegisterForEvents(&rec);
  simConnect("CM0P");
  ASSERT_EQ(simRun("CM0P", 3000), 0) << lastError();
  ASSERT_EQ(waitHalted("CM0P", 5000), 0);
  rec.until("channel CM0P 8 Stopped: buffer full");

  Rows rows = decode(foundry, server, "CM0P", "MTB", 3);  // blocks of 3 rows: seek 0, then 3
  EXPECT_EQ(rows.names, (std::vector<std::string>{"Index", "Read Address", "Write Address", "Program Address",
                                                  "Program Data", "Trace Status"}));
  ASSERT_EQ(rows.cells.size(), 8u);
  EXPECT_EQ(rows.cells[0], (std::vector<std::string>{"0", "48", "48", "", "", "Run"}));
  EXPECT_EQ(rows.cells[1], (std::vector<std::string>{"1", "48", "48", "", "", "Run"}));
  EXPECT_EQ(rows.cells[2], (std::vector<std::string>{"2", "44", "44", "", "", "Exception 3"}));
  op->release();

  // Circular with instruction rows: the newest stretches, each run row
  // followed by its instructions.
  op = configure(s, tree(s, "MTB", {s->makeString("Buffer Size", "32 Bytes")}));
  simRun("CM0P", 3000);
  waitHalted("CM0P", 5000);
  rows = decode(foundry, server, "CM0P", "MTB", 16384);
  ASSERT_EQ(rows.cells.size(), 8u);  // four stretches of one "b ." each
  EXPECT_EQ(rows.cells[6], (std::vector<std::string>{"6", "44", "44", "", "", "Run"}));
  EXPECT_EQ(rows.cells[7], (std::vector<std::string>{"7", "", "", "44", "E7FE", ""}));
  op->release();
  s->release();
  foundry->DestroyChannelServer(server, 0);
  entry<DestroyChannelFoundry_t>("ChannelFoundry", "DestroyChannelFoundry")(foundry);
}

TEST_F(SimulationTest, EtbRangeSubOperationKeepsOnlyInstructionsInsideIt) {
  char error[Xevt::kErrorTextSize] = {};
  Xevt::ISession* session = sessions()->openLiveSession(error, sizeof error);
  Xevt::IOperationServer* main = session->getOperationServer("CM4", error, sizeof error);
  Xevt::IOperationServer* sub = session->getSubOperationServer("CM4", error, sizeof error);
  EXPECT_EQ(session->getSubOperationServer("CM0P", error, sizeof error), nullptr);
  EXPECT_NE(std::string(error).find("no trace unit with sub-operations"), std::string::npos);
  sessions()->releaseSession(session);
  auto* op = configure(main, tree(main, "ETB", {main->makeString("Buffer Type", "Circular")}));
  Xevt::IProperty* range = sub->makeGroup("Type");
  Xevt::IProperty* actions = sub->makeString("Actions", "Trace in Range");
  for (auto [name, at] : {std::pair{"Start Location", 0x60u}, std::pair{"End Location", 0x7Fu}}) {
    Xevt::IProperty* p = sub->makeAddress(name, at, 0);
    actions->addChild(p);
    p->release();
  }
  range->addChild(actions);
  actions->release();
  auto* rangeOp = configure(sub, range);

  Trace::IChannelFoundry* foundry = createFoundry();
  Trace::IChannelServer* server = nullptr;
  foundry->CreateChannelServer(server, 1);
  simConnect("CM4");
  ASSERT_EQ(simRun("CM4", 500), 0) << lastError();
  ASSERT_EQ(waitHalted("CM4", 5000), 0);
  Rows rows = decode(foundry, server, "CM4", "ETB", 100);
  ASSERT_EQ(rows.names[1], "Program Address");
  size_t instructions = 0;
  for (const auto& row : rows.cells) {
    if (row[1].empty()) continue;
    ++instructions;
    uint32_t address = std::stoul(row[1], nullptr, 16);
    EXPECT_TRUE(address >= 0x60 && address <= 0x7F) << row[1];
    EXPECT_NE(row[3], "0");  // cycles since the last traced instruction
    EXPECT_NE(row[3], "");
  }
  EXPECT_GT(instructions, 10u);
  rangeOp->release();
  op->release();
  main->release();
  sub->release();
  foundry->DestroyChannelServer(server, 0);
  entry<DestroyChannelFoundry_t>("ChannelFoundry", "DestroyChannelFoundry")(foundry);
}

}  // namespace
