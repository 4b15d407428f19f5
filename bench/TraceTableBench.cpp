// The trace table readers on synthetic decoder rows of the benchmark
// firmware (testdata/firmware/bench.elf), symbols and disassembly through
// the host kit. Each reader is set against a baseline of the same run:
//
//   BM_RawRowRead/N        the decoder's raw row read alone: N rows through
//                          CTRACE::DecodeTraceData in blocks of 32768
//   BM_ReadTdfTable/N      readTdfTable of the same N rows (hex cells, the
//                          symbol columns); counter peak_bytes_per_row is the
//                          peak resident memory the table adds, per row
//   BM_CachedLookups       per instruction row: function, line and
//                          disassembly through the lookup caches, nothing else
//   BM_DecodeEtbTrace      decodeETBTrace of 1 M rows (one run row in 16)
//   BM_DecodeMtbTrace      decodeMTBTrace of one full 16384-row buffer (a run
//                          row in 8, each run disassembled), against
//   BM_RawRowRead/16384
//
// Compare items_per_second (rows per second) within a group.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
#include <string>

#include "kit/CapstoneDisasmManager.hpp"
#include "kit/ElfSymbolManager.hpp"
#include "source_utilities/HostApis.hpp"
#include "tool_access/CTRACE.hpp"
#include "tool_access/InstructionTraceDecoder.hpp"
#include "tool_access/TdfTableReader.hpp"

namespace {

using namespace Qx::Nlv::Trace;

constexpr uint32_t kRunEvery = 16;

// Read Address, Write Address, Program Address, Program Data, Cycles:
// 4-byte columns, one valid byte.
class SyntheticDecoder final : public IDecoder {
 public:
  const std::vector<uint32_t>* addresses = nullptr;
  uint64_t total = 0;
  uint32_t runEvery = kRunEvery;
  uint64_t cursor = 0;

  void getColumnCount(uint32_t& count) override { count = 5; }
  void getColumnInfo(uint32_t index, uint32_t& id, uint32_t& bitWidth, bool& isString,
                     const char*& name, const char*& text1, const char*& text2) override {
    static const char* kNames[] = {"Read Address", "Write Address", "Program Address",
                                   "Program Data", "Cycles"};
    id = index;
    bitWidth = 32;
    isString = false;
    name = kNames[index];
    text1 = text2 = "";
  }
  void bitsToBytes(uint32_t bitWidth, uint32_t& size) override { size = (bitWidth + 7) / 8; }
  void prepareColumn(uint32_t, bool) override {}
  void SeekRead(uint32_t seek, double, TracePosition, uint32_t count, uint32_t& rows, uint8_t* data,
                TracePosition* positions, uint8_t* valid, std::string& strings) override {
    if (seek == kSeekStart) cursor = 0;
    strings.clear();
    rows = 0;
    const auto& list = *addresses;
    for (; rows < count && cursor < total; ++rows, ++cursor) {
      uint8_t* row = data + rows * 20;
      const size_t index = cursor % list.size();
      positions[rows].row = cursor;
      if (cursor % runEvery == 0) {
        // A run over the next instructions in program order.
        const uint32_t range[2] = {list[index],
                                   list[std::min(index + runEvery - 1, list.size() - 1)]};
        std::memcpy(row, range, sizeof range);
        valid[rows] = 0x03;
      } else {
        const uint32_t instruction[3] = {list[index], 0xBF00, static_cast<uint32_t>(cursor & 7)};
        std::memcpy(row + 8, instruction, sizeof instruction);
        valid[rows] = 0x1C;
      }
    }
  }
  void LoadFile(const char*, uint32_t, uint32_t) override {}
  IOverlayInfo* getOverlayInfo() override { return nullptr; }
};

struct Fixture {
  hostkit::ElfSymbolManager symbols;
  hostkit::CapstoneDisasmManager disassembly;
  std::shared_ptr<ObjectFileInfo> info;
  std::shared_ptr<CloudDisasm> disasm;
  std::vector<uint32_t> addresses;  // instruction starts, in program order

  Fixture() {
    QX_NLV::setSymbolManagerApi(static_cast<sym_lite::ISymbolManager*>(&symbols));
    QX_NLV::setDisAsmManagerApi(static_cast<disasm_lite::IDisassemblyManager*>(&disassembly));
    info = ObjectFileInfo::create(OSTRAND_SOURCE_DIR "/testdata/firmware/bench.elf");
    disasm = std::make_shared<CloudDisasm>(info, 0x75803800);
    const auto& package = info->package();
    // A loop-heavy trace: the first 200 functions' code, over and over.
    for (uint32_t i = 0; i < package->functionCount() && i < 200; ++i) {
      sym_lite::FunctionRange range{};
      package->functionRange(i, &range);
      for (const auto& line : disasm->Disassemble({range.start}, {range.end - 1}))
        if (line.size > 0) addresses.push_back(static_cast<uint32_t>(line.address));
    }
  }
};

Fixture& fixture() {
  static Fixture instance;
  return instance;
}

// A record with its decoder, as the gate hands it to the readers.
struct Reading {
  SyntheticDecoder decoder;
  CTRACE trace;
  CloudOperation record;
  TraceLookupCaches caches;
  std::string lastError;
  TraceReadContext context{record, &trace, caches, lastError};

  Reading(uint64_t rows, bool symbols, uint32_t runEvery = kRunEvery) {
    decoder.addresses = &fixture().addresses;
    decoder.total = rows;
    decoder.runEvery = runEvery;
    trace.decoder = &decoder;
    if (symbols) {
      record.objectInfo = fixture().info;
      record.disassembler = fixture().disasm;
    }
  }
  ~Reading() { trace.decoder = nullptr; }
};

size_t residentKiB(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(field, 0) == 0) return std::stoul(line.substr(std::string(field).size()));
  return 0;
}

void BM_RawRowRead(benchmark::State& state) {
  const auto rows = static_cast<uint32_t>(state.range(0));
  std::vector<uint8_t> data(20u * 32768), valid(32768);
  std::vector<TracePosition> positions(32768);
  for (auto _ : state) {
    Reading reading(rows, false);
    std::vector<std::string> names;
    std::vector<uint32_t> sizes, offsets, ids;
    std::vector<bool> strings;
    reading.trace.readColumnInfo(names, sizes, strings, offsets, ids);
    uint32_t seek = kSeekStart, read = 0;
    do {
      read = reading.trace.DecodeTraceData(seek, 0, {}, 32768, data.data(), valid.data(),
                                           positions.data());
      seek = kSeekContinue;
      benchmark::DoNotOptimize(data.data());
    } while (read == 32768);
  }
  state.SetItemsProcessed(state.iterations() * rows);
}
BENCHMARK(BM_RawRowRead)->Arg(16384)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

void BM_ReadTdfTable(benchmark::State& state) {
  const auto rows = static_cast<uint32_t>(state.range(0));
  double peakPerRow = 0;
  for (auto _ : state) {
    state.PauseTiming();
    fixture();
    const size_t before = residentKiB("VmRSS:");
    state.ResumeTiming();
    {
      Reading reading(rows, true);
      Json::Value data;
      readTdfTable(reading.context, data, nullptr);
      benchmark::DoNotOptimize(data);
      // The peak: the row blocks and every cell as JSON are held at once
      // when the read returns.
      state.PauseTiming();
      // The first iteration's figure: the allocator keeps freed memory, so
      // later ones grow from a higher resident size.
      peakPerRow = std::max(peakPerRow,
                            (static_cast<double>(residentKiB("VmRSS:")) - before) * 1024.0 / rows);
      state.ResumeTiming();
    }
  }
  state.counters["peak_bytes_per_row"] = peakPerRow;
  state.SetItemsProcessed(state.iterations() * rows);
}
BENCHMARK(BM_ReadTdfTable)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Iterations(2);

void BM_CachedLookups(benchmark::State& state) {
  const auto& f = fixture();
  const uint64_t rows = 1'000'000;
  for (auto _ : state) {
    TraceLookupCaches caches;
    for (uint64_t i = 0; i < rows; ++i) {
      if (i % kRunEvery == 0) continue;
      const uint32_t address = f.addresses[i % f.addresses.size()];
      benchmark::DoNotOptimize(&caches.lookupFunctionInfo(address, f.info.get()));
      benchmark::DoNotOptimize(&caches.lookupLine(address, f.info.get()));
      benchmark::DoNotOptimize(&caches.disassembleOne(address, *f.disasm));
    }
  }
  state.SetItemsProcessed(state.iterations() * rows);
}
BENCHMARK(BM_CachedLookups)->Unit(benchmark::kMillisecond);

void BM_DecodeEtbTrace(benchmark::State& state) {
  fixture();
  const uint64_t rows = 1'000'000;
  VSKTspServer::EtbRecordStore store;
  for (auto _ : state) {
    Reading reading(rows, true);
    uint32_t count = 0;
    Json::Value data;
    decodeETBTrace(reading.context, count, data, store);
    benchmark::DoNotOptimize(data);
  }
  state.SetItemsProcessed(state.iterations() * rows);
}
BENCHMARK(BM_DecodeEtbTrace)->Unit(benchmark::kMillisecond);

void BM_DecodeMtbTrace(benchmark::State& state) {
  fixture();
  for (auto _ : state) {
    Reading reading(kMtbBufferRows, true, 8);
    uint32_t count = 0;
    Json::Value data;
    decodeMTBTrace(reading.context, count, data, false);
    benchmark::DoNotOptimize(data);
  }
  state.SetItemsProcessed(state.iterations() * kMtbBufferRows);
}
BENCHMARK(BM_DecodeMtbTrace)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
