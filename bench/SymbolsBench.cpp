// Function + file + line + disassembly for 1,000,000 addresses drawn from a
// program of 3000 functions (testdata/firmware/bench.elf), through
// ObjectFileInfo and CloudDisasm on the host kit's managers:
//
//   BM_HashMapBaseline   one plain std::unordered_map lookup per address,
//                        the floor any per-address answer costs
//   BM_Uncached          every address asks the package and the disassembler
//   BM_Cached            a per-address cache in front, as a table reader
//                        keeps one: repeated addresses cost one hash lookup
//
// Addresses are instruction starts, drawn with a skew (a tenth of the code
// gets most of the hits), as a trace of loops has them. Compare
// items_per_second across the three.
#include <benchmark/benchmark.h>

#include <random>
#include <unordered_map>

#include "kit/CapstoneDisasmManager.hpp"
#include "kit/ElfSymbolManager.hpp"
#include "source_utilities/HostApis.hpp"
#include "symbols/CloudDisasm.hpp"
#include "symbols/ObjectFileInfo.hpp"

namespace {

constexpr size_t kQueries = 1'000'000;

struct Answer {
  std::string function, file, directory;
  uint32_t line = 0;
  const char* text = nullptr;
  disasm_lite::DisassemblySourceLine disassembly;
};

// Built once: the managers, the module objects and the drawn addresses.
struct Fixture {
  hostkit::ElfSymbolManager symbols;
  hostkit::CapstoneDisasmManager disassembly;
  std::shared_ptr<ObjectFileInfo> info;
  std::unique_ptr<CloudDisasm> disasm;
  std::vector<uint64_t> queries;

  Fixture() {
    QX_NLV::setSymbolManagerApi(static_cast<sym_lite::ISymbolManager*>(&symbols));
    QX_NLV::setDisAsmManagerApi(static_cast<disasm_lite::IDisassemblyManager*>(&disassembly));
    info = ObjectFileInfo::create(OSTRAND_SOURCE_DIR "/testdata/firmware/bench.elf");
    disasm = std::make_unique<CloudDisasm>(info, 0x75803800);
    std::vector<uint64_t> starts;
    const auto& package = info->package();
    for (uint32_t i = 0; i < package->functionCount(); ++i) {
      sym_lite::FunctionRange range{};
      package->functionRange(i, &range);
      for (const auto& line : disasm->Disassemble({range.start}, {range.end - 1}))
        if (line.size > 0) starts.push_back(line.address);
    }
    std::mt19937_64 random(42);
    std::uniform_int_distribution<size_t> any(0, starts.size() - 1);
    std::uniform_int_distribution<size_t> hot(0, starts.size() / 10);
    std::bernoulli_distribution pickHot(0.9);
    queries.reserve(kQueries);
    for (size_t i = 0; i < kQueries; ++i)
      queries.push_back(starts[pickHot(random) ? hot(random) : any(random)]);
  }
  ~Fixture() {
    disasm.reset();
    info.reset();
    QX_NLV::setSymbolManagerApi(nullptr);
    QX_NLV::setDisAsmManagerApi(nullptr);
  }

  Answer lookup(uint64_t address) const {
    Answer answer;
    info->lookupFunction(address, answer.function, answer.file, answer.directory);
    info->lookupSourceLine(address, &answer.line, &answer.text);
    answer.disassembly = disasm->DisassembleOne({address});
    return answer;
  }
};

Fixture& fixture() {
  static Fixture instance;
  return instance;
}

void BM_HashMapBaseline(benchmark::State& state) {
  auto& f = fixture();
  std::unordered_map<uint64_t, uint64_t> map;
  for (uint64_t address : f.queries) map.emplace(address, address * 3);
  for (auto _ : state) {
    uint64_t sum = 0;
    for (uint64_t address : f.queries) sum += map.find(address)->second;
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(int64_t(state.iterations() * f.queries.size()));
}

void BM_Uncached(benchmark::State& state) {
  auto& f = fixture();
  for (auto _ : state) {
    for (uint64_t address : f.queries) {
      Answer answer = f.lookup(address);
      benchmark::DoNotOptimize(answer);
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations() * f.queries.size()));
}

void BM_Cached(benchmark::State& state) {
  auto& f = fixture();
  for (auto _ : state) {
    std::unordered_map<uint64_t, Answer> cache;  // starts cold every pass
    for (uint64_t address : f.queries) {
      auto found = cache.find(address);
      if (found == cache.end()) found = cache.emplace(address, f.lookup(address)).first;
      benchmark::DoNotOptimize(found->second);
    }
    state.counters["distinct"] = double(cache.size());
  }
  state.SetItemsProcessed(int64_t(state.iterations() * f.queries.size()));
}

BENCHMARK(BM_HashMapBaseline)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Uncached)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Cached)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
