// The simulated debug environment through its libraries and control entry
// point: scenarios, the events of connect, run, halt and stop in their
// order and on the simulation's thread, operations configured by property
// trees, and decoders handing out rows through the column model.
#include "SimTestSupport.hpp"

namespace {

using namespace ostrand_sim_test;

// testdata/broken_scenarios.txt holds each scenario with what its message names.
TEST_F(SimulationTest, BrokenScenariosSayWhatIsWrongAndKeepTheActiveOne) {
  std::ifstream cases(std::string(OSTRAND_SOURCE_DIR) + "/toolsim/tests/testdata/broken_scenarios.txt");
  const std::string file = dir() + "/broken.json";
  size_t count = 0;
  for (std::string text, expected; std::getline(cases, text);) {
    if (text.empty() || text[0] == '#' || !std::getline(cases, expected)) continue;
    ++count;
    std::ofstream(file) << text;
    EXPECT_EQ(loadScenario(file.c_str()), -1) << text;
    EXPECT_NE(std::string(lastError()).find(expected), std::string::npos) << lastError();
  }
  EXPECT_EQ(count, 9u);
  EXPECT_EQ(getNumCpu(), 2);  // the default scenario stays active
}

TEST_F(SimulationTest, RunHaltAndStopFireTheirEventsInOrderOnTheSimulationThread) {
  Recorder rec;
  addAdapterConsumer(&rec);
  entry<AddTargetEventConsumer_t>("PBATargetAdapter", "AddTargetEventConsumer")(&rec);
  Hemlock::IHemlockManager* manager = nullptr;
  Hemlock::IHemlockJobManager* jobs = nullptr;
  entry<GetHemlockMgrIF_t>("hemlock", "GetHemlockMgrIF")(&manager);
  entry<GetHemlockJobMgrIF_t>("hemlock", "GetHemlockJobMgrIF")(&jobs);
  Client client(rec);  // registered for the CPU as the module registers it
  client.init("test", 0, manager, jobs);
  ASSERT_TRUE(client.attachTarget("microbit/CM0P", true));
  const int32_t id = client.currentTargetId();
  Channels channels(&rec);

  ASSERT_EQ(simConnect("microbit/CM0P"), 0) << lastError();
  ASSERT_EQ(simRun("microbit/CM0P", 0), 0) << lastError();
  EXPECT_EQ(simRun("microbit/CM0P", 0), -3);
  EXPECT_NE(std::string(lastError()).find("already running"), std::string::npos);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(simHalt("microbit/CM0P"), 0);
  ASSERT_EQ(waitHalted("microbit/CM0P", 5000), 0);
  Trace::IChannelDriver* driver = nullptr;
  channels.server->GetChannelDriver("microbit/CM0P", driver);
  const char* text = nullptr;
  driver->StopRecording(text);
  EXPECT_STREQ(text, "");
  std::vector<std::string> events = rec.until("channel microbit/CM0P 11 Stopped on user request");
  const std::vector<std::string> expected = {
      "added microbit/CM0P", "state microbit/CM0P 1", "state microbit/CM0P 2", "job 0 " + std::to_string(id),
      "channel microbit/CM0P 6 Recording", "state microbit/CM0P 6", "state microbit/CM0P 7", "channel microbit/CM0P 11 Stopped on user request"};
  EXPECT_EQ(events, expected);
  for (std::thread::id t : rec.threads) EXPECT_NE(t, std::this_thread::get_id());

  client.detachTarget("microbit/CM0P");
  removeAdapterConsumer(&rec);
  entry<RemoveTargetEventConsumer_t>("PBATargetAdapter", "RemoveTargetEventConsumer")(&rec);
}

// Connects `cpu` and waits for its event: every event caused before it has
// gone out.
void flushEvents(const char* cpu) {
  Recorder rec;
  addAdapterConsumer(&rec);
  EXPECT_EQ(simConnect(cpu), 0) << lastError();
  rec.until(std::string("added ") + cpu);
  removeAdapterConsumer(&rec);
}

// A tool holds its own lock both in cleanup() and while it registers with
// the registry; the simulation must call out with none of its locks held, or
// the two orders deadlock (ThreadSanitizer reports the inversion). A callback
// removed by an earlier one in the same delivery is not called.
TEST_F(SimulationTest, CleanupCallsHoldNoSimulationLockAndSkipCallbacksRemovedMeanwhile) {
  Hemlock::ICleanupRegistry* registry = nullptr;
  entry<GetHemlockCleanupRegistryIF_t>("hemlock", "GetHemlockCleanupRegistryIF")(&registry);
  ASSERT_NE(registry, nullptr);
  std::mutex toolMutex;
  std::condition_variable cleaned;
  struct Tool final : Hemlock::CleanupCallbackIF {
    Tool(std::mutex& m, std::condition_variable& c, Hemlock::ICleanupRegistry* r) : lock(m), done(c), reg(r) {}
    void cleanup() override {
      std::lock_guard<std::mutex> guard(lock);
      ++calls;
      if (victim != nullptr) reg->remove(victim);
      done.notify_all();
    }
    std::mutex& lock;
    std::condition_variable& done;
    Hemlock::ICleanupRegistry* reg;
    Tool* victim = nullptr;
    int calls = 0;  // guarded by lock
  };
  // The cleanup of the scenario SetUp replaced may still be on its way:
  // an event caused after it has come only once it has gone out.
  flushEvents("mps2/CM4");
  Tool first(toolMutex, cleaned, registry), second(toolMutex, cleaned, registry);
  first.victim = &second;
  {
    std::lock_guard<std::mutex> guard(toolMutex);  // the tool's order: its lock, then the registry
    registry->add(&first);
    registry->add(&second);
  }
  ASSERT_EQ(loadScenario(""), 0) << lastError();  // ends the session: cleanup goes out
  {
    std::unique_lock<std::mutex> lock(toolMutex);
    EXPECT_TRUE(cleaned.wait_for(lock, std::chrono::seconds(10), [&] { return first.calls == 1; }));
    EXPECT_EQ(second.calls, 0);
  }
  // Flush the event thread before the callbacks go out of scope.
  registry->remove(&first);
  flushEvents("microbit/CM0P");
  std::lock_guard<std::mutex> guard(toolMutex);
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(second.calls, 0);
}

TEST_F(SimulationTest, MtbOperationSettingsShapeTheRecordedRows) {
  Xevt::IOperationServer* s = operations("microbit/CM0P");
  ASSERT_NE(s, nullptr);
  // 64 bytes one-shot: eight packets, the recording stops itself when full.
  auto* op = configure(s, tree(s, "MTB", {s->makeString("Buffer Size", "64 Bytes"),
                                          s->makeString("Trace Buffer Type", "One-shot"),
                                          s->makeBoolean("Hierarchical Decode", false)}));
  Recorder rec;
  Channels channels(&rec);
  simConnect("microbit/CM0P");
  ASSERT_EQ(simRun("microbit/CM0P", 3000), 0) << lastError();
  ASSERT_EQ(waitHalted("microbit/CM0P", 5000), 0);
  rec.until("channel microbit/CM0P 8 Stopped: buffer full");

  Rows rows = channels.decode("microbit/CM0P", "MTB", 3);  // blocks of 3 rows: seek 0, then 3
  EXPECT_EQ(rows.names, (std::vector<std::string>{"Index", "Read Address", "Write Address", "Program Address",
                                                  "Program Data", "Trace Status"}));
  // The reset handler's copy and clear loops: one run per branch back.
  const Symbols m0(kMicrobitElf);
  ASSERT_EQ(rows.cells.size(), 8u);
  for (size_t i = 0; i < rows.cells.size(); ++i) {
    const auto& row = rows.cells[i];
    EXPECT_EQ(row[0], std::to_string(i));
    EXPECT_EQ(m0.functionAt(row[1]), "Reset_Handler") << row[1];
    // The newest run has not ended in the buffer: no last address.
    EXPECT_EQ(i + 1 < rows.cells.size() ? m0.functionAt(row[2]) : row[2],
              i + 1 < rows.cells.size() ? "Reset_Handler" : "FFFFFFFF");
    EXPECT_EQ(row[5], "Run");
  }
  op->release();

  // Circular, with instruction rows: the newest four packets, deep in the
  // program's work and its tick; each run row followed by its instructions,
  // whose opcodes are the program's own.
  op = configure(s, tree(s, "MTB", {s->makeString("Buffer Size", "32 Bytes")}));
  ASSERT_EQ(simRun("microbit/CM0P", 20000), 0) << lastError();
  ASSERT_EQ(waitHalted("microbit/CM0P", 20000), 0) << lastError();
  rows = channels.decode("microbit/CM0P", "MTB", 16384);
  size_t runs = 0;
  uint64_t first = 0, last = 0;
  for (const auto& row : rows.cells) {
    if (!row[1].empty()) {
      ++runs;
      first = std::stoull(row[1], nullptr, 16);
      last = std::stoull(row[2], nullptr, 16);
      for (size_t c : {1, 2}) {
        if (row[c] == "FFFFFFFF") continue;  // the end of the newest run is not in the buffer yet
        const std::string f = m0.functionAt(row[c]);
        EXPECT_TRUE(f == "main" || f == "process_block" || f == "filter_step" || f == "crc_update" ||
                    f == "SysTick_Handler" || f == "report" || f == "board_uart_put")
            << row[c] << " in " << f;
      }
      continue;
    }
    const uint64_t at = std::stoull(row[3], nullptr, 16);
    if (first != 0xFFFFFFFF) {
      EXPECT_GE(at, first);
    }
    if (last != 0xFFFFFFFF) {
      EXPECT_LE(at, last);
    }
    EXPECT_EQ(row[4], m0.opcodeAt(at));
  }
  EXPECT_GE(runs, 4u);
  EXPECT_LE(runs, 5u);
  op->release();

  // A watermark half way with "Stop at watermark": four packets, then the
  // recording stops itself with the buffer-full word.
  op = configure(s, tree(s, "MTB", {s->makeString("Buffer Size", "64 Bytes"), s->makeNumber("Watermark level", 32),
                                    s->makeBoolean("Stop at watermark", true),
                                    s->makeBoolean("Hierarchical Decode", false)}));
  const std::string full = "channel microbit/CM0P 8 Stopped: buffer full";
  const size_t fullBefore = rec.count(full);
  ASSERT_EQ(simRun("microbit/CM0P", 5000), 0) << lastError();
  ASSERT_EQ(waitHalted("microbit/CM0P", 20000), 0) << lastError();
  EXPECT_TRUE(rec.waitCount(full, fullBefore + 1));
  EXPECT_EQ(rec.count(full), fullBefore + 1);
  // Four packets: four runs at most (an exception return takes two).
  rows = channels.decode("microbit/CM0P", "MTB", 100);
  EXPECT_GE(rows.cells.size(), 2u);
  EXPECT_LE(rows.cells.size(), 4u);
  op->release();
  s->release();
}

TEST_F(SimulationTest, EtbRangeSubOperationKeepsOnlyInstructionsInsideIt) {
  char error[Xevt::kErrorTextSize] = {};
  Xevt::ISession* session = sessions()->openLiveSession(error, sizeof error);
  EXPECT_EQ(session->getSubOperationServer("microbit/CM0P", error, sizeof error), nullptr);
  EXPECT_NE(std::string(error).find("no trace unit with sub-operations"), std::string::npos);
  sessions()->releaseSession(session);
  Xevt::IOperationServer *main = operations("mps2/CM4"), *sub = operations("mps2/CM4", true);
  auto* op = configure(main, tree(main, "ETB", {main->makeString("Buffer Type", "Circular")}));
  const Symbols m4(kMps2Elf);
  const uint32_t from = m4.address("process_block"), to = m4.address("report") - 1;
  auto action = [&](const char* what, const std::vector<std::pair<const char*, uint32_t>>& at) {
    return configure(sub, actionTree(sub, what, at));
  };
  auto* rangeOp = action("Trace in Range", {{"Start Location", from}, {"End Location", to}});

  Recorder rec;
  Channels channels(&rec);
  simConnect("mps2/CM4");
  ASSERT_EQ(simRun("mps2/CM4", 8000), 0) << lastError();
  ASSERT_EQ(waitHalted("mps2/CM4", 20000), 0);
  Rows rows = channels.decode("mps2/CM4", "ETB", 100);
  ASSERT_EQ(rows.names[1], "Program Address");
  size_t instructions = 0, counted = 0;
  for (const auto& row : rows.cells) {
    if (row[1].empty()) continue;
    ++instructions;
    uint32_t address = std::stoul(row[1], nullptr, 16);
    EXPECT_TRUE(address >= from && address <= to) << row[1];
    EXPECT_EQ(row[2], m4.opcodeAt(address));
    counted += row[3].empty() ? 0 : 1;  // cycles on the instruction that ends a stretch
  }
  EXPECT_GT(instructions, 10u);
  EXPECT_GT(counted, 0u);
  rangeOp->release();

  // "End Trace" at the filter: the recording stops there by itself. The
  // stream ends with the last waypoint traced: the call into the filter.
  auto* endOp = action("End Trace", {{"Location", m4.address("filter_step")}});
  ASSERT_EQ(simRun("mps2/CM4", 20000), 0) << lastError();
  ASSERT_EQ(waitHalted("mps2/CM4", 20000), 0);
  std::vector<std::string> events = rec.until("channel mps2/CM4 17 Stopped on trace trigger");
  EXPECT_EQ(rec.count("channel mps2/CM4 17 Stopped on trace trigger"), 1u);
  rows = channels.decode("mps2/CM4", "ETB", 1000);
  ASSERT_FALSE(rows.cells.empty());
  std::string lastInstruction;
  for (const auto& row : rows.cells) lastInstruction = row[1].empty() ? lastInstruction : row[1];
  EXPECT_EQ(m4.functionAt(lastInstruction), "process_block") << lastInstruction;
  endOp->release();
  op->release();
  main->release();
  sub->release();
}

struct SettingCase {
  const char* receiver;  // "" for an ETB sub-operation
  const char* name;
  const char* value;
  const char* error;     // "" when the setting is taken
};

class OperationSettings : public SimulationTest, public ::testing::WithParamInterface<SettingCase> {};

TEST_P(OperationSettings, AreTakenOrRefusedWithAReason) {
  const SettingCase& c = GetParam();
  const bool sub = c.receiver[0] == '\0';
  Xevt::IOperationServer* s = operations(std::string(c.receiver) == "MTB" ? "microbit/CM0P" : "mps2/CM4", sub);
  ASSERT_NE(s, nullptr);
  Xevt::IProperty* root =
      sub ? actionTree(s, c.name, {{c.value, 0x100}}) : tree(s, c.receiver, {s->makeString(c.name, c.value)});
  auto* op = dynamic_cast<TargetOperations::IOperation6*>(s->getOperation());
  std::string refused;
  try {
    op->setProperties(&root, 1);
  } catch (Hemlock::hemlockErrorIF& e) {
    refused = e.GetErrorText();
  }
  EXPECT_EQ(refused.empty(), std::string(c.error).empty()) << refused;
  EXPECT_NE(refused.find(c.error), std::string::npos) << refused;
  root->release();
  op->release();
  s->release();
}

INSTANTIATE_TEST_SUITE_P(
    Sim, OperationSettings,
    ::testing::Values(SettingCase{"MTB", "Buffer Size", "4 KB", ""},
                      SettingCase{"MTB", "Buffer Size", "lots", "Buffer Size 'lots'"},
                      SettingCase{"MTB", "Buffer Size", "7 Bytes", "Buffer Size '7 Bytes' is not a size"},
                      SettingCase{"MTB", "Trace Buffer Type", "Sideways", "Buffer type 'Sideways' is not known"},
                      SettingCase{"ETB", "Buffer Type", "One-shot", ""},
                      SettingCase{"ITM", "Buffer Size", "32", "CPU mps2/CM4 has no ITM route"},
                      SettingCase{"", "Start Trace", "Location", ""},
                      SettingCase{"", "Start Trace", "Somewhere", "A trigger needs a Location"},
                      SettingCase{"", "Trace in Range", "Start Location", "needs a Start Location and an End Location"},
                      SettingCase{"", "Dance", "Location", "Action 'Dance' is not known"}));

}  // namespace
