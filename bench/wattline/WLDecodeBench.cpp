// Wattline stream decoding against plain reads of the same bytes.
//
// 1. Memory: decoding a stream of 26-byte records that is already in memory
//    into the node's columns, against a sequential read (a sum over the
//    bytes) of the same buffer. The node decodes again into the columns it
//    has (as a refresh of an unchanged file does); a second figure counts
//    fresh column memory as well.
// 2. Open: readFile + decode + the statistics of the whole stream, for a
//    multi-GiB stream from a warm page cache by a new node (mapping the file,
//    checking every record, summing), against reading the same file in
//    1 MiB blocks. Counters:
//    the process's peak resident memory during the open (`peak_vs_file`) and
//    once open (`rss_vs_file`), both as multiples of the file size.
//
// The stream is a generated capture (type 7, version-4 states), written to
// $OSTRAND_BENCH_DIR (default: the system's temporary directory) and removed
// at the end of the run unless $OSTRAND_BENCH_KEEP is set (then a later run
// reuses it). The open benchmarks run only when asked, as they need a large
// file: $OSTRAND_WL_BENCH_GIB=<size in GiB> (4 for the reference figure).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "wattline/WLDataNode.hpp"
#include "wattline/generator/WLCaptureGenerator.hpp"

using namespace VSKTspServer;

namespace {

constexpr double kRate = 100000.0;

std::string benchDir() {
  const char* dir = std::getenv("OSTRAND_BENCH_DIR");
  return dir != nullptr && *dir != '\0' ? dir : std::filesystem::temp_directory_path().string();
}

bool keepFiles() {
  const char* keep = std::getenv("OSTRAND_BENCH_KEEP");
  return keep != nullptr && *keep != '\0' && std::strcmp(keep, "0") != 0;
}

// The size of the open benchmarks' file, 0 when they are not asked for.
double openGib() {
  const char* gib = std::getenv("OSTRAND_WL_BENCH_GIB");
  return gib != nullptr ? std::atof(gib) : 0.0;
}

std::string memoryPath() { return benchDir() + "/ostrand-wl-bench-256MiB.bin"; }
std::string openPath() { return benchDir() + "/ostrand-wl-bench-open.bin"; }

// A generated stream of about `bytes` bytes at `path`, reused when present.
void ensureStream(const std::string& path, uint64_t bytes) {
  const uint64_t records = bytes / 26 - 1;
  std::error_code ec;
  if (std::filesystem::file_size(path, ec) == (records + 1) * 26 && !ec) return;
  WLGeneratorOptions options;
  options.recordType = 7;
  options.layout = WLStateLayout::kV4;
  options.sampleRate = static_cast<uint32_t>(kRate);
  options.durationSeconds = static_cast<double>(records) / kRate;
  std::fprintf(stderr, "generating %s (%.2f GiB)...\n", path.c_str(), bytes / 1073741824.0);
  writeStream(path, options);
}

std::vector<uint8_t> readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// Kilobytes of a /proc/self/status line ("VmHWM", "VmRSS").
long statusKb(const char* key) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const size_t n = std::strlen(key);
  while (std::getline(in, line)) {
    if (line.compare(0, n, key) == 0 && line[n] == ':') return std::atol(line.c_str() + n + 1);
  }
  return -1;
}

// Lets the peak resident memory start again from the present one.
void resetPeakRss() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

struct MemoryStream {
  std::vector<uint8_t> bytes;
  MemoryStream() {
    const std::string path = memoryPath();
    ensureStream(path, uint64_t{256} << 20);
    bytes = readAll(path);
    if (!keepFiles()) std::filesystem::remove(path);
  }
};
MemoryStream& memoryStream() {
  static MemoryStream stream;
  return stream;
}


void BM_MemoryRead(benchmark::State& state) {
  const auto& bytes = memoryStream().bytes;
  const size_t words = bytes.size() / 8;
  for (auto _ : state) {
    uint64_t sum = 0;
    const uint8_t* p = bytes.data();
    for (size_t i = 0; i < words; ++i) {
      uint64_t w;
      std::memcpy(&w, p + 8 * i, 8);
      sum += w;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void BM_MemoryDecode(benchmark::State& state) {
  const auto& bytes = memoryStream().bytes;
  WLDataNode node;
  for (auto _ : state) {
    node.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
    node.decode();
    benchmark::DoNotOptimize(node.times[0]);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
  state.counters["records"] = static_cast<double>(node.recordCount);
}

// The same with a new node each time: the columns' memory is fresh from the
// system, so the kernel's zeroing of it is counted too.
void BM_MemoryDecodeFresh(benchmark::State& state) {
  const auto& bytes = memoryStream().bytes;
  for (auto _ : state) {
    WLDataNode node;
    node.readBuffer(bytes.data(), static_cast<int64_t>(bytes.size()));
    node.decode();
    benchmark::DoNotOptimize(node.times[0]);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void BM_FileRead(benchmark::State& state) {
  const std::string path = openPath();
  ensureStream(path, static_cast<uint64_t>(openGib() * 1073741824.0));
  std::vector<uint8_t> block(size_t{1} << 20);
  uint64_t total = 0;
  for (auto _ : state) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    uint64_t sum = 0;
    ssize_t got;
    total = 0;
    while ((got = ::read(fd, block.data(), block.size())) > 0) {
      sum += block[0] + block[static_cast<size_t>(got) - 1];
      total += static_cast<uint64_t>(got);
    }
    ::close(fd);
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * total));
}

void BM_FileOpen(benchmark::State& state) {
  const std::string path = openPath();
  const double fileKb = static_cast<double>(std::filesystem::file_size(path)) / 1024.0;
  double peak = 0, open = 0;
  for (auto _ : state) {
    state.PauseTiming();
    resetPeakRss();
    state.ResumeTiming();
    WLDataNode node;
    node.readFile(std::filesystem::path(path).parent_path().string(),
                  std::filesystem::path(path).filename().string());
    node.decode();
    node.computeStats(0, node.recordCount);  // what opening a capture shows first
    state.PauseTiming();
    peak = std::max(peak, static_cast<double>(statusKb("VmHWM")));
    open = std::max(open, static_cast<double>(statusKb("VmRSS")));
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * fileKb * 1024.0));
  state.counters["peak_vs_file"] = peak / fileKb;
  state.counters["rss_vs_file"] = open / fileKb;
}

// Ratios need both figures of the pair; they are printed after the run.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const auto found = run.counters.find("bytes_per_second");
      if (found == run.counters.end()) continue;
      const double rate = found->second.value;
      const std::string name = run.benchmark_name();
      if (name.rfind("BM_MemoryRead", 0) == 0) memoryRead_ = rate;
      if (name.rfind("BM_FileRead", 0) == 0) fileRead_ = rate;
      if (name.rfind("BM_MemoryDecode/", 0) == 0 && memoryRead_ > 0) decodeRatio_ = rate / memoryRead_;
      if (name.rfind("BM_MemoryDecodeFresh", 0) == 0 && memoryRead_ > 0) freshRatio_ = rate / memoryRead_;
      if (name.rfind("BM_FileOpen", 0) == 0 && fileRead_ > 0) openRatio_ = rate / fileRead_;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    if (decodeRatio_ > 0) std::printf("decode in memory vs sequential read: %.2fx (target >= 0.50)\n", decodeRatio_);
    if (freshRatio_ > 0) std::printf("  the same into fresh memory:         %.2fx\n", freshRatio_);
    if (openRatio_ > 0) std::printf("open from page cache vs file read:   %.2fx (target >= 0.35)\n", openRatio_);
  }

 private:
  double memoryRead_ = 0, fileRead_ = 0, decodeRatio_ = 0, freshRatio_ = 0, openRatio_ = 0;
};

}  // namespace

BENCHMARK(BM_MemoryRead)->Unit(benchmark::kMillisecond)->MinTime(1.0)->UseRealTime();
BENCHMARK(BM_MemoryDecode)->Unit(benchmark::kMillisecond)->MinTime(1.0)->UseRealTime();
BENCHMARK(BM_MemoryDecodeFresh)->Unit(benchmark::kMillisecond)->MinTime(1.0)->UseRealTime();
int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (openGib() > 0) {
    benchmark::RegisterBenchmark("BM_FileRead", BM_FileRead)
        ->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
    benchmark::RegisterBenchmark("BM_FileOpen", BM_FileOpen)
        ->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  if (!keepFiles()) {
    std::error_code ec;
    std::filesystem::remove(memoryPath(), ec);
    std::filesystem::remove(openPath(), ec);
  }
  return 0;
}
