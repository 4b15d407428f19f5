// What the tests of the simulated debug environment share: the libraries'
// entry points, an event recorder, the module's tool client, reading a
// decoder as the module does, property trees, the programs' symbols and the
// test fixture.
#pragma once

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

#include "ProgramImage.hpp"
#include "TestSupport.hpp"
#include "hemlock/ToolEntryPoints.hpp"
#include "hemlock/hemlockErrorIF.hpp"
#include "sim/SimControl.hpp"
#include "tool_access/CloudHLClientBase.hpp"

namespace ostrand_sim_test {

using namespace Qx::Nlv;

template <typename F>
inline F entry(const char* library, const char* name) {
  void* handle = dlopen((std::string(OSTRAND_TOOL_DIR) + "/lib" + library + ".so").c_str(), RTLD_NOW);
  return handle != nullptr ? reinterpret_cast<F>(dlsym(handle, name)) : nullptr;
}

inline const auto loadScenario = entry<OstrandSim_LoadScenario_t>("hemlock", "OstrandSim_LoadScenario");
inline const auto lastError = entry<OstrandSim_LastError_t>("hemlock", "OstrandSim_LastError");
inline const auto simRun = entry<OstrandSim_Run_t>("hemlock", "OstrandSim_Run");
inline const auto simHalt = entry<OstrandSim_Halt_t>("hemlock", "OstrandSim_Halt");
inline const auto waitHalted = entry<OstrandSim_WaitHalted_t>("hemlock", "OstrandSim_WaitHalted");
inline const auto simConnect = entry<OstrandSim_Connect_t>("hemlock", "OstrandSim_Connect");
inline const auto getNumCpu = entry<GetNumCpu_t>("PBATargetAdapter", "GetNumCpu");
inline const auto sessions = entry<XEVT_GetSessionManager_t>("qx_xevt_session", "XEVT_GetSessionManager");
inline const auto createFoundry = entry<CreateChannelFoundry_t>("ChannelFoundry", "CreateChannelFoundry");
inline const auto destroyFoundry = entry<DestroyChannelFoundry_t>("ChannelFoundry", "DestroyChannelFoundry");
inline const auto addAdapterConsumer = entry<AddAdapterEventConsumer_t>("PBATargetAdapter", "AddAdapterEventConsumer");
inline const auto removeAdapterConsumer =
    entry<RemoveAdapterEventConsumer_t>("PBATargetAdapter", "RemoveAdapterEventConsumer");

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
  // Waits until `text` has come `n` times; false after 10 s.
  bool waitCount(const std::string& text, size_t n) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(10), [&] {
      return static_cast<size_t>(std::count(events.begin(), events.end(), text)) >= n;
    });
  }
  // Waits until `text` has come; the events so far.
  std::vector<std::string> until(const std::string& text) {
    waitCount(text, 1);
    std::lock_guard<std::mutex> lock(mutex);
    return events;
  }
  size_t count(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<size_t>(std::count(events.begin(), events.end(), text));
  }
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> events;
  std::vector<std::thread::id> threads;
};

// The module's own tool client, its job events recorded.
class Client final : public CloudHLClientBase {
 public:
  explicit Client(Recorder& r) : CloudHLClientBase(nullptr), recorder(r) {}
  bool onJobEvent(uint32_t kind, uint64_t id) override {
    recorder.add("job " + std::to_string(kind) + " " + std::to_string(id));
    return true;
  }
  Recorder& recorder;
};

inline const std::string kMicrobitElf = std::string(OSTRAND_SOURCE_DIR) + "/testdata/firmware/run_microbit.elf";
inline const std::string kMps2Elf = std::string(OSTRAND_SOURCE_DIR) + "/testdata/firmware/run_mps2.elf";

// The program a CPU runs, to name the addresses its trace shows.
struct Symbols {
  explicit Symbols(const std::string& path) : image(path) {}
  std::string functionAt(const std::string& hex) const {
    return image.functionAt(static_cast<uint32_t>(std::stoul(hex, nullptr, 16)));
  }
  std::string opcodeAt(uint64_t at) const {
    uint8_t size = 0;
    char hex[16];
    std::snprintf(hex, sizeof hex, "%X", image.opcodeAt(static_cast<uint32_t>(at), size));
    return hex;
  }
  uint32_t address(const char* name) const { return image.symbol(name).value_or(0); }
  OstrandSim::ProgramImage image;
};

// The emulators this process started that are still alive.
inline size_t qemuChildren() {
  size_t n = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream stat(entry.path() / "stat");
    std::string pid, comm, state, ppid;
    if (!(stat >> pid >> comm >> state >> ppid)) continue;
    n += comm == "(qemu-system-arm)" && std::stol(ppid) == getpid() && state != "Z";
  }
  return n;
}

struct Rows {
  std::vector<std::string> names;
  std::vector<std::vector<std::string>> cells;  // "" when a cell has no value
  bool operator==(const Rows&) const = default;
};

// Every row of a decoder, read as the module reads it: the column model
// first, then blocks of `block` rows from seek position 0 and on from the last.
inline Rows readRows(Trace::IDecoder* decoder, uint32_t block) {
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
  return out;
}

// A channel foundry with one server, both gone with the object; `listener`
// hears the server's channel events.
struct Channels {
  explicit Channels(Trace::ChannelClient* listener = nullptr) {
    foundry->CreateChannelServer(server, 1);
    if (listener != nullptr) server->RegisterForEvents(listener);
  }
  ~Channels() {
    foundry->DestroyChannelServer(server, 0);
    destroyFoundry(foundry);
  }
  // The rows of a CPU's live decoder.
  Rows decode(const char* cpu, const char* receiver, uint32_t block) {
    Trace::IChannelDriver* driver = nullptr;
    EXPECT_TRUE(server->GetChannelDriver(cpu, driver));
    Trace::IDecoder* decoder = nullptr;
    foundry->CreateDecoder(driver, receiver, nullptr, nullptr, decoder);
    Rows out = readRows(decoder, block);
    foundry->DestroyDecoder(decoder);
    return out;
  }
  Trace::IChannelFoundry* foundry = createFoundry();
  Trace::IChannelServer* server = nullptr;
};

// The operation server of a CPU in a live session, or of its trace unit's
// sub-operations.
inline Xevt::IOperationServer* operations(const char* cpu, bool sub = false) {
  char error[Xevt::kErrorTextSize] = {};
  Xevt::ISession* session = sessions()->openLiveSession(error, sizeof error);
  EXPECT_NE(session, nullptr) << error;
  Xevt::IOperationServer* s = sub ? session->getSubOperationServer(cpu, error, sizeof error)
                                  : session->getOperationServer(cpu, error, sizeof error);
  sessions()->releaseSession(session);
  EXPECT_NE(s, nullptr) << error;
  return s;
}

// Property trees as the module builds them.
inline Xevt::IProperty* tree(Xevt::IOperationServer* s, const std::string& receiver,
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

// A sub-operation's tree: the action and the addresses it takes.
inline Xevt::IProperty* actionTree(Xevt::IOperationServer* s, const char* action,
                                   const std::vector<std::pair<const char*, uint32_t>>& at) {
  Xevt::IProperty* root = s->makeGroup("Type");
  Xevt::IProperty* actions = s->makeString("Actions", action);
  for (auto [name, address] : at) {
    Xevt::IProperty* p = s->makeAddress(name, address, 0);
    actions->addChild(p);
    p->release();
  }
  root->addChild(actions);
  actions->release();
  return root;
}

inline TargetOperations::IOperation6* configure(Xevt::IOperationServer* s, Xevt::IProperty* root) {
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
    for (const char* cpu : {"microbit/CM0P", "mps2/CM4"}) simHalt(cpu), waitHalted(cpu, 5000);
  }
  const std::string& dir() const { return dir_.path(); }
  ostrand_test::TempDir dir_{"toolsim"};
};

}  // namespace ostrand_sim_test
