// Saved runs: OstrandSim_Save writes a CPU's last run as a .tdf recording,
// and the file decoder of the foundry, with its configuration manager and
// the file session, opens it without a target. The file decoder's rows are
// the live decoder's rows for the same run; damaged files are refused with
// a message that names the file, never a crash.
#include <algorithm>
#include <functional>
#include <memory>

#include "SimTestSupport.hpp"
#include "TestSupport.hpp"

namespace {

using namespace ostrand_sim_test;
namespace fs = std::filesystem;

const auto simSave = entry<OstrandSim_Save_t>("hemlock", "OstrandSim_Save");

class RecordingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(loadScenario(""), 0) << lastError();
    foundry_ = createFoundry();
  }
  void TearDown() override { destroyFoundry(foundry_); }
  std::string path(const std::string& name) const { return dir_ / name; }

  // Runs a CPU of the default scenario and saves the run.
  std::string runAndSave(const char* cpu, uint64_t instructions, const std::string& file) {
    EXPECT_EQ(simConnect(cpu), 0) << lastError();
    EXPECT_EQ(simRun(cpu, instructions), 0) << lastError();
    EXPECT_EQ(waitHalted(cpu, 10000), 0) << lastError();
    EXPECT_EQ(simSave(cpu, path(file).c_str()), 0) << lastError();
    return path(file);
  }

  // The file decoder as the module drives it: file channel driver, file
  // decoder, LoadFile, LoadConfiguration; the clock from the configuration.
  Rows file(const std::string& tdf, const char* receiver, const char* program, int64_t* clockHz = nullptr) {
    Trace::IFileChannelDriver* driver = nullptr;
    foundry_->CreateFileChannelDriver(driver);
    Trace::IDecoder* decoder = nullptr;
    // Both go whether the decoder reads the file or refuses it.
    const std::shared_ptr<void> release(nullptr, [&](void*) {
      if (decoder != nullptr) foundry_->DestroyDecoder(decoder);
      foundry_->DestroyFileChannelDriver(driver);
    });
    foundry_->CreateDecoder(driver, receiver, nullptr, program, decoder, tdf.c_str());
    Trace::IDeviceConfigManager* config = nullptr;
    foundry_->LookupDeviceConfigManager(decoder, config);
    decoder->LoadFile(tdf.c_str(), 0, 0);
    config->LoadConfiguration(tdf.c_str(), 0);
    Trace::ConfigProperty clock;
    if (clockHz != nullptr && config->getProperty("Timing Clock Frequency", clock)) *clockHz = clock.integer;
    return readRows(decoder, 500);
  }

  ostrand_test::TempDir dir_{"toolsim-rec"};
  Trace::IChannelFoundry* foundry_ = nullptr;
};

struct SavedRun {
  const char* cpu;
  const char* receiver;
  uint64_t instructions;
  int64_t clockHz;
};

class SavedRuns : public RecordingTest, public ::testing::WithParamInterface<SavedRun> {};

TEST_P(SavedRuns, DecodeFromTheFileToTheLiveRows) {
  const SavedRun& run = GetParam();
  const std::string tdf = runAndSave(run.cpu, run.instructions, fs::path(run.cpu).filename().string() + ".tdf");
  const Rows liveRows = Channels().decode(run.cpu, run.receiver, 500);
  ASSERT_GT(liveRows.cells.size(), 4u);
  int64_t clock = 0;
  const Rows fileRows = file(tdf, run.receiver, nullptr, &clock);
  EXPECT_EQ(fileRows, liveRows);
  EXPECT_EQ(clock, run.clockHz);
  const auto& names = liveRows.names;
  const size_t status = std::find(names.begin(), names.end(), "Trace Status") - names.begin();
  ASSERT_LT(status, names.size());
  EXPECT_TRUE(std::any_of(liveRows.cells.begin(), liveRows.cells.end(),
                          [&](const auto& row) { return !row[status].empty(); }));

  // A second run replaces the first: the file still holds the first.
  ASSERT_EQ(simRun(run.cpu, 40), 0) << lastError();
  ASSERT_EQ(waitHalted(run.cpu, 10000), 0);
  EXPECT_EQ(file(tdf, run.receiver, nullptr), fileRows);

  // The file session shows the recorded CPU with its program and route,
  // with no scenario behind it.
  ASSERT_EQ(loadScenario(""), 0);
  char error[Xevt::kErrorTextSize] = {};
  Xevt::ISession* session = sessions()->openFileSession(tdf.c_str(), error, sizeof error);
  ASSERT_NE(session, nullptr) << error;
  ASSERT_EQ(session->deviceCount(), 1u);
  Xevt::IDevice* device = nullptr;
  session->getDevices(&device, 1);
  const wchar_t* program = nullptr;
  device->getOutFileName(program, run.cpu);
  ASSERT_NE(program, nullptr);
  EXPECT_TRUE(fs::exists(fs::path(std::wstring(program))));
  Xevt::RouteList routes;
  device->getRoutes(routes);
  ASSERT_EQ(routes.count, 1u);
  const char* receiver = nullptr;
  routes.routes[0]->getReceiver(receiver);
  EXPECT_STREQ(receiver, run.receiver);
  EXPECT_EQ(session->getOperationServer(run.cpu, error, sizeof error), nullptr);
  EXPECT_NE(std::string(error).find("no operations"), std::string::npos) << error;
  sessions()->releaseSession(session);
}

INSTANTIATE_TEST_SUITE_P(BothCpus, SavedRuns,
                         ::testing::Values(SavedRun{"microbit/CM0P", "MTB", 3000, 16000000},
                                           SavedRun{"mps2/CM4", "ETB", 1500, 25000000}),
                         [](const auto& info) { return std::filesystem::path(info.param.cpu).filename().string(); });

TEST_F(RecordingTest, SavingSaysWhyItCannot) {
  EXPECT_EQ(simSave("NOPE", path("a.tdf").c_str()), -1);
  EXPECT_NE(std::string(lastError()).find("No CPU 'NOPE'"), std::string::npos) << lastError();
  EXPECT_EQ(simSave("microbit/CM0P", path("a.tdf").c_str()), -2);
  EXPECT_NE(std::string(lastError()).find("no run to save yet; run it first"), std::string::npos) << lastError();
  ASSERT_EQ(simConnect("microbit/CM0P"), 0);
  ASSERT_EQ(simRun("microbit/CM0P", 100), 0);
  ASSERT_EQ(waitHalted("microbit/CM0P", 10000), 0);
  EXPECT_EQ(simSave("microbit/CM0P", (path("missing-dir") + "/a.tdf").c_str()), -4);
  EXPECT_NE(std::string(lastError()).find("missing-dir/a.tdf"), std::string::npos) << lastError();
  EXPECT_EQ(simSave("microbit/CM0P", ""), -4);
  EXPECT_FALSE(fs::exists(path("a.tdf")));
}

TEST_F(RecordingTest, AProgramMovedWithTheRecordingIsFoundBesideIt) {
  const std::string tdf = runAndSave("mps2/CM4", 500, "moved.tdf");
  const fs::path elsewhere = path("elsewhere");
  fs::create_directories(elsewhere);
  fs::copy_file(std::string(OSTRAND_TOOL_DIR) + "/scenarios/firmware/run_mps2.elf", elsewhere / "run_mps2.elf");
  fs::rename(tdf, elsewhere / "moved.tdf");
  // The session looks beside the file when the recorded path is gone; the
  // decoder takes the program it is given (the module finds it the same way).
  char error[Xevt::kErrorTextSize] = {};
  Xevt::ISession* session = sessions()->openFileSession((elsewhere / "moved.tdf").c_str(), error, sizeof error);
  ASSERT_NE(session, nullptr) << error;
  sessions()->releaseSession(session);
  EXPECT_GT(file((elsewhere / "moved.tdf").string(), "ETB", (elsewhere / "run_mps2.elf").c_str()).cells.size(), 4u);
}

// ---- damaged files ------------------------------------------------------------

using ostrand_test::readFile;
using ostrand_test::writeFile;

struct Damage {
  const char* name;
  std::function<void(std::string&)> change;
  const char* error;  // a part of the message
};

TEST_F(RecordingTest, DamagedFilesAreRefusedWithTheFileAndTheFault) {
  const std::string good = runAndSave("microbit/CM0P", 3000, "good.tdf");
  const std::string original = readFile(good);
  const std::vector<Damage> damages = {
      {"empty", [](std::string& b) { b.clear(); }, "cut short in the header"},
      {"old header", [](std::string& b) { std::memcpy(b.data(), "TDF1", 4); }, "no TDF2 header"},
      {"format version", [](std::string& b) { b[8] = 99; }, "format version 99 not supported"},
      {"component", [](std::string& b) { b[16] = 'X'; }, "wrong component name"},
      {"data magic", [](std::string& b) { b[b.find("OSTD")] = 'X'; }, "no data section"},
      {"data version", [](std::string& b) { b[b.find("OSTD") + 4] = 7; }, "data section of another version"},
      {"configuration", [](std::string& b) { b[b.find("CONF") + 8] = '['; }, "configuration is not JSON"},
      {"trace chunk tag", [](std::string& b) { b[b.find("MTBB")] = 'X'; }, "no trace in the data section"},
      {"MTB position", [](std::string& b) { b[b.find("MTBB") + 8] = 3; }, "MTB position outside its buffer"},
      {"chunk length", [](std::string& b) { b[b.find("MTBB") + 7] = 0x7F; }, "cut short in a chunk"},
      {"program", [](std::string& b) { b[b.find("run_microbit.elf") + 15] = 'X'; }, "program file cannot be read"},
  };
  for (const Damage& d : damages) {
    SCOPED_TRACE(d.name);
    const std::string bad = path(std::string("bad-") + d.name + ".tdf");
    std::string bytes = original;
    d.change(bytes);
    writeFile(bad, bytes);
    try {
      file(bad, "MTB", nullptr);
      ADD_FAILURE() << "a damaged file was decoded";
    } catch (Hemlock::hemlockErrorIF& e) {
      const std::string text = e.GetErrorText();
      EXPECT_NE(text.find(d.error), std::string::npos) << text;
      EXPECT_NE(text.find(bad), std::string::npos) << text;
    }
  }

  // Cut anywhere, the file is refused (by the decoder and the file session)
  // and nothing crashes.
  for (size_t size = 0; size < original.size(); size += 5) {
    const std::string cut = path("cut.tdf");
    writeFile(cut, original.substr(0, size));
    EXPECT_THROW(file(cut, "MTB", nullptr), Hemlock::hemlockErrorIF) << size;
    char error[Xevt::kErrorTextSize] = {};
    EXPECT_EQ(sessions()->openFileSession(cut.c_str(), error, sizeof error), nullptr) << size;
    EXPECT_NE(std::string(error).find(cut), std::string::npos) << error;
  }

  // The trace of another receiver than the decoder's, and no file at all.
  EXPECT_THROW(file(good, "ETB", nullptr), Hemlock::hemlockErrorIF);
  try {
    file(path("none.tdf"), "MTB", nullptr);
    ADD_FAILURE() << "a missing file was decoded";
  } catch (Hemlock::hemlockErrorIF& e) {
    EXPECT_NE(std::string(e.GetErrorText()).find("none.tdf"), std::string::npos) << e.GetErrorText();
  }
}

}  // namespace
