// The execution and trace production of the simulated targets.
//
// BM_RunWithTraceModels: a program runs under QEMU with the log reader and
// all trace models (MTB, ETM, power) attached. The baseline is QEMU's own
// CPU time in the same run (the child's rusage); the counter
// `ours_per_qemu` is our CPU time (reading, parsing, models) over QEMU's,
// which must stay under 0.2.
// BM_MtbDecode16384 / BM_MtbCopy: a full MTB buffer decoded to its 16384
// rows, against a plain copy of the same bytes.
// BM_EtmDecode1M / BM_OpenCsdOnly / BM_EtmCopy: a stream of 1 M executed
// instructions decoded to rows, against OpenCSD's own decode of the stream
// (element callbacks only) and a plain copy of the same bytes.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstring>
#include <filesystem>

#include "EtmDecoder.hpp"
#include "EtmEncoder.hpp"
#include "MtbDecoder.hpp"
#include "MtbEncoder.hpp"
#include "PowerRecorder.hpp"
#include "QemuRunner.hpp"

namespace {

using namespace OstrandSim;

const std::string kProgram = std::string(OSTRAND_SOURCE_DIR) + "/testdata/firmware/run_mps2.elf";

double seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec * 1e-6; }

class StepBuffer : public StepConsumer {
 public:
  void onStep(const ExecStep& s) override { steps.push_back(s); }
  std::vector<ExecStep> steps;
};

// Runs the test program for `instructions` through `consumer`.
void run(uint64_t instructions, StepConsumer& consumer) {
  QemuRunConfig config;
  config.program = kProgram;
  QemuRunner runner(config, consumer);
  runner.start();
  runner.run(instructions);
}

void BM_RunWithTraceModels(benchmark::State& state) {
  const std::string dir = std::filesystem::temp_directory_path() / "ostrand-bench-power";
  double ours = 0, qemu = 0;
  for (auto _ : state) {
    rusage selfBefore{}, childBefore{}, selfAfter{}, childAfter{};
    getrusage(RUSAGE_SELF, &selfBefore);
    getrusage(RUSAGE_CHILDREN, &childBefore);
    {
      MtbConfig mtbConfig;
      mtbConfig.bufferBytes = 4096;
      MtbEncoder mtb(mtbConfig);
      EtmEncoder etm(EtmConfig{});
      PowerConfig powerConfig;
      powerConfig.directory = dir;
      powerConfig.model = defaultPowerModel("mps2-an386");
      PowerRecorder power(powerConfig);
      StepFanout all;
      all.add(mtb);
      all.add(etm);
      all.add(power);
      run(static_cast<uint64_t>(state.range(0)), all);
    }
    getrusage(RUSAGE_SELF, &selfAfter);
    getrusage(RUSAGE_CHILDREN, &childAfter);
    ours += seconds(selfAfter.ru_utime) + seconds(selfAfter.ru_stime) - seconds(selfBefore.ru_utime) -
            seconds(selfBefore.ru_stime);
    qemu += seconds(childAfter.ru_utime) + seconds(childAfter.ru_stime) -
            seconds(childBefore.ru_utime) - seconds(childBefore.ru_stime);
  }
  std::filesystem::remove_all(dir);
  state.counters["qemu_cpu_s"] = qemu / static_cast<double>(state.iterations());
  state.counters["ours_cpu_s"] = ours / static_cast<double>(state.iterations());
  state.counters["ours_per_qemu"] = qemu > 0 ? ours / qemu : 0;
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_RunWithTraceModels)->Arg(200000)->Unit(benchmark::kMillisecond)->UseRealTime();

struct MtbFixture {
  MtbFixture() : image(kProgram) {
    MtbConfig config;
    config.bufferBytes = 32768;
    MtbEncoder mtb(config);
    run(60000, mtb);
    snapshot = mtb.snapshot();
  }
  ProgramImage image;
  MtbSnapshot snapshot;
};

const MtbFixture& mtbFixture() {
  static const MtbFixture f;
  return f;
}

void BM_MtbDecode16384(benchmark::State& state) {
  const MtbFixture& f = mtbFixture();
  size_t rows = 0;
  for (auto _ : state) {
    RowTable t = decodeMtb(f.snapshot, &f.image);
    rows = t.rowCount();
    benchmark::DoNotOptimize(t);
  }
  state.counters["rows"] = static_cast<double>(rows);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(rows));
}
BENCHMARK(BM_MtbDecode16384)->Unit(benchmark::kMicrosecond);

void BM_MtbCopy(benchmark::State& state) {
  const MtbFixture& f = mtbFixture();
  std::vector<uint8_t> copy(f.snapshot.buffer.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), f.snapshot.buffer.data(), copy.size());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * 16384);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(copy.size()));
}
BENCHMARK(BM_MtbCopy)->Unit(benchmark::kMicrosecond);

// 1 M instructions: ten streams of 100,000 executed instructions one after
// the other, each beginning with its sync (as a trace unit that restarted).
struct EtmFixture {
  EtmFixture() : image(kProgram) {
    StepBuffer steps;
    run(100000, steps);
    for (int i = 0; i < 10; ++i) {
      EtmConfig config;
      config.bufferBytes = 1 << 22;
      EtmEncoder etm(config);
      for (const ExecStep& s : steps.steps) etm.onStep(s);
      const EtmSnapshot part = etm.snapshot();
      stream.bytes.insert(stream.bytes.end(), part.bytes.begin(), part.bytes.end());
    }
  }
  ProgramImage image;
  EtmSnapshot stream;
};

const EtmFixture& etmFixture() {
  static const EtmFixture f;
  return f;
}

void BM_EtmDecode1M(benchmark::State& state) {
  const EtmFixture& f = etmFixture();
  EtmDecodeStats stats;
  for (auto _ : state) {
    stats = {};
    RowTable t = decodeEtm(f.stream, f.image, &stats);
    benchmark::DoNotOptimize(t);
  }
  state.counters["instructions"] = static_cast<double>(stats.instructions);
  state.counters["stream_bytes"] = static_cast<double>(f.stream.bytes.size());
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(stats.instructions));
}
BENCHMARK(BM_EtmDecode1M)->Unit(benchmark::kMillisecond);

void BM_OpenCsdOnly(benchmark::State& state) {
  const EtmFixture& f = etmFixture();
  uint64_t ranges = 0;
  for (auto _ : state) ranges = decodeEtmRangesOnly(f.stream, f.image);
  state.counters["ranges"] = static_cast<double>(ranges);
  state.SetItemsProcessed(state.iterations() * 1000000);
}
BENCHMARK(BM_OpenCsdOnly)->Unit(benchmark::kMillisecond);

void BM_EtmCopy(benchmark::State& state) {
  const EtmFixture& f = etmFixture();
  std::vector<uint8_t> copy(f.stream.bytes.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), f.stream.bytes.data(), copy.size());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * 1000000);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(copy.size()));
}
BENCHMARK(BM_EtmCopy)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
