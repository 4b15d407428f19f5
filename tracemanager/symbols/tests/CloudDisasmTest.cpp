#include "symbols/CloudDisasm.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "FakeSymbolManager.hpp"
#include "source_utilities/HostApis.hpp"

using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace {

using disasm_lite::DisassemblyRecord;

constexpr uint32_t processorId(uint32_t family, uint32_t variant) {
  return family << 22 | variant << 10 | 0x3F8;
}

// Delivers scripted records; remembers what it was made with.
class FakeDisassembler final : public disasm_lite::IDisassembler {
 public:
  std::vector<DisassemblyRecord> records;
  void disassembleRange(const Debugger::Address& from, const Debugger::Address& to,
                        IResultInserter* inserter) override {
    for (const auto& record : records) inserter->insert(&record);
  }
  void disassembleOne(DisassemblyRecord* out, const Debugger::Address& address) override {
    *out = records.empty() ? DisassemblyRecord{} : records.front();
    out->address = address.value;
  }
  disasm_lite::ITargetEnvironment* environment = nullptr;
};

class FakeDisasmManager : public disasm_lite::IDisassemblyManager {
 public:
  uint32_t version = kVersion;
  bool failCreate = false;
  int created = 0;
  disasm_lite::ITargetEnvironment* environment = nullptr;
  void* symbolHandle = nullptr;
  std::vector<DisassemblyRecord> records;
  std::vector<std::string> log;

  uint32_t getVersion() override { return version; }
  disasm_lite::IDisassembler* createDisassembler(disasm_lite::ITargetEnvironment* env,
                                                 void* handle) override {
    ++created;
    environment = env;
    symbolHandle = handle;
    if (failCreate) return nullptr;
    auto* d = new FakeDisassembler;
    d->records = records;
    d->environment = env;
    return d;
  }
  void destroyDisassembler(disasm_lite::IDisassembler* d) override {
    // The environment must still be alive while its disassembler goes.
    auto* own = static_cast<FakeDisassembler*>(d);
    log.push_back(std::string("destroy in ") + own->environment->name());
    delete own;
  }
};

class CloudDisasmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QX_NLV::setSymbolManagerApi(&symbols);
    QX_NLV::setDisAsmManagerApi(&disasm);
    symbols.setUp = [this](fake::Package& p) {
      p.bigEndian = bigEndian;
      package = &p;
    };
  }
  void TearDown() override {
    QX_NLV::setSymbolManagerApi(nullptr);
    QX_NLV::setDisAsmManagerApi(nullptr);
  }
  std::shared_ptr<ObjectFileInfo> objectInfo() { return ObjectFileInfo::create("x.elf"); }

  fake::Manager symbols;
  FakeDisasmManager disasm;
  fake::Package* package = nullptr;
  uint32_t bigEndian = 0;
};

// Family and variant pick the environment's kind, seen in the one register
// each kind answers for its byte order (and none for a kind without one).
TEST(EndianRegisterTest, AnswersOnlyItsOwnRegister) {
  const struct {
    uint32_t family, variant;
    bool bigEndian;
    const char* query;
    uint64_t expected;
  } cases[] = {{470, 14, true, "REG_ENDIAN", 1},   {470, 14, false, "REG_ENDIAN", 0},
               {470, 7, true, "CSR", 0},           {320, 102, false, "CSR", 256},
               {320, 98, true, "CSR", 0},          {320, 100, false, "REG_ENDIAN", 0},
               {320, 117, false, "TSR", 1ULL << 56}, {320, 113, true, "TSR", 0},
               {320, 40, false, "ST1", 0},         {320, 40, false, "st1", 0},
               {320, 41, false, "CSR", 0},         {320, 41, true, "REG_ENDIAN", 0},
               {100, 14, true, "REG_ENDIAN", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.family) + "/" + std::to_string(c.variant) + " " + c.query);
    auto env = disasm_lite::makeTargetEnvironment(processorId(c.family, c.variant), c.bigEndian);
    env->setRegisterQuery(c.query, 5, 6, 7);
    uint64_t value = 12345;
    EXPECT_EQ(env->registerValue(&value), &value);
    EXPECT_EQ(value, c.expected);
    // The second query never answers, even for the endian register.
    env->setSecondRegisterQuery(c.query, 0, 0, 0);
    EXPECT_EQ(*env->secondRegisterValue(&value), 0u);
    EXPECT_STREQ(env->name(), "CloudDisasm");
    EXPECT_EQ(env->flags(), 0u);
    EXPECT_EQ(env->processorId(), processorId(c.family, c.variant));
  }
}

// A line as "<size> <address> <label>|<text>".
std::string show(const disasm_lite::DisassemblySourceLine& line) {
  std::ostringstream out;
  out << line.size << " " << std::hex << line.address << " " << line.label << "|" << line.text;
  return out.str();
}

TEST(DisassemblerTest, EmptyDisassemblerAnswersWithNothing) {
  disasm_lite::Disassembler none;
  EXPECT_EQ(show(none.DisassembleOne({0x100})), "0 0 |");
  EXPECT_TRUE(none.Disassemble({0}, {0x1000}).empty());
}

// Another version than two is refused before anything is made; a
// disassembler not made is an ordinary exception.
TEST_F(CloudDisasmTest, Refusals) {
  auto info = objectInfo();
  for (uint32_t version : {1u, 3u}) {
    disasm.version = version;
    EXPECT_THAT([&] { CloudDisasm d(info, processorId(470, 14)); },
                ThrowsMessage<std::runtime_error>(StrEq("Mismatch API version")))
        << "version " << version << " accepted";
  }
  EXPECT_EQ(disasm.created, 0);
  disasm.version = FakeDisasmManager().version;
  disasm.failCreate = true;
  EXPECT_THAT([&] { CloudDisasm d(info, processorId(470, 14)); },
              ThrowsMessage<std::exception>(StrEq("Failed to create the disassembler interface")));
}

TEST_F(CloudDisasmTest, ByteOrderComesFromTheLowByteOfThePackageAnswer) {
  for (auto [answer, expected] : {std::pair{1u, 1u}, {0x100u, 0u}, {0x101u, 1u}, {0u, 0u}}) {
    bigEndian = answer;
    auto info = objectInfo();
    CloudDisasm d(info, processorId(470, 14));
    EXPECT_EQ(disasm.symbolHandle, package);
    disasm.environment->setRegisterQuery("REG_ENDIAN", 0, 0, 0);
    uint64_t value = 9;
    EXPECT_EQ(*disasm.environment->registerValue(&value), expected) << "answer " << answer;
  }
}

TEST_F(CloudDisasmTest, DisassemblerGoesBeforeItsEnvironment) {
  {
    auto info = objectInfo();
    CloudDisasm d(info, processorId(470, 14));
  }
  EXPECT_EQ(disasm.log, std::vector<std::string>{"destroy in CloudDisasm"});
}

TEST_F(CloudDisasmTest, OneLineIsCopiedOnlyWhenValid) {
  auto info = objectInfo();
  disasm.records = {{2, 0, "main+0x4", "00000104 4770    bx lr"}};
  EXPECT_EQ(show(CloudDisasm(info, processorId(470, 14)).DisassembleOne({0x104})),
            "2 104 main+0x4|00000104 4770    bx lr");
  disasm.records = {{0, 0, "junk", "junk"}};
  EXPECT_EQ(show(CloudDisasm(info, processorId(470, 14)).DisassembleOne({0x104})), "0 0 |");
}

TEST_F(CloudDisasmTest, RangeKeepsEveryDeliveredLineInOrder) {
  disasm.records = {{2, 0x100, "f", "a"}, {0, 0x102, "", "bad"}, {4, 0x104, nullptr, "c"}};
  auto info = objectInfo();
  std::vector<std::string> shown;
  for (const auto& line : CloudDisasm(info, processorId(470, 14)).Disassemble({0x100}, {0x104}))
    shown.push_back(show(line));
  EXPECT_EQ(shown, (std::vector<std::string>{"2 100 f|a", "0 102 |bad", "4 104 |c"}));
}

}  // namespace
