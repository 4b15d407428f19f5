// Wattline views through real HTTP: a 200-line table request and a current
// graph over the whole stream, against GET /tsp/api/health in the same run
// on the same server. Each benchmark reports its median latency (`p50_us`);
// the ratios to the health request are printed at the end (target: at most
// 3x). A request must cost the same whatever the stream length, so the
// same figures are taken for 1 million records and, when
// $OSTRAND_WL_HTTP_100M is set, for 100 million (about 2.6 GB of disk).
//
// The capture goes to a fresh directory under $OSTRAND_BENCH_DIR (default:
// the system's temporary directory), removed at the end unless
// $OSTRAND_BENCH_KEEP is set.
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ServerFixture.hpp"
#include "tsp_server/ExperimentKinds.hpp"
#include "wattline/WLExperimentKind.hpp"
#include "wattline/generator/WLCaptureGenerator.hpp"

using namespace VSKTspServer;
using nlohmann::json;

namespace {

namespace fs = std::filesystem;

bool envSet(const char* name) {
  const char* v = std::getenv(name);
  return v != nullptr && *v != '\0' && std::strcmp(v, "0") != 0;
}

// A data tree with one power capture of `records` samples, served.
class ServedCapture {
 public:
  explicit ServedCapture(uint64_t records) {
    const char* dir = std::getenv("OSTRAND_BENCH_DIR");
    std::random_device random;
    root_ = fs::path(dir != nullptr && *dir != '\0' ? dir : fs::temp_directory_path().string()) /
            ("ostrand-wl-http-" + std::to_string(records) + "-" + std::to_string(random()));
    WLGeneratorOptions options;
    options.recordType = 7;
    options.layout = WLStateLayout::kV4;
    options.sampleRate = 100000;
    options.durationSeconds = static_cast<double>(records) / options.sampleRate;
    options.device = "bench/board";
    try {
      std::fprintf(stderr, "generating %llu records...\n", static_cast<unsigned long long>(records));
      writeCaptureDirectory((root_ / ".QX-trace/data/live-targets/bench/board/Wattline").string(),
                            options);
      ::setenv("USERPROFILE", root_.c_str(), 1);
      registerWattlineKinds(registerExperimentKind);
      server_ = std::make_unique<ostrand_test::RunningServer>();
      if (!server_->server().isListening()) throw std::runtime_error("the server did not start");
      client_ = server_->client();
      client_->set_read_timeout(600);
      server_->server().refreshLive();
      const json experiments = json::parse(client_->Get("/tsp/api/experiments")->body);
      uuid_ = experiments.at(0).at("UUID");
      records_ = experiments.at(0).at("nbEvents");
      end_ = experiments.at(0).at("end");
      for (const auto& o : json::parse(client_->Get(base())->body)) outputs_[o["name"]] = o["id"];
    } catch (...) {
      // A multi-GB stream must not outlive a failed start.
      release();
      throw;
    }
  }
  ~ServedCapture() { release(); }

  std::string base() const { return "/tsp/api/experiments/" + uuid_ + "/outputs"; }
  httplib::Client& client() { return *client_; }
  const std::string& output(const std::string& name) { return outputs_.at(name); }
  int64_t records() const { return records_; }
  int64_t end() const { return end_; }

 private:
  void release() {
    client_.reset();
    server_.reset();
    if (!envSet("OSTRAND_BENCH_KEEP")) {
      std::error_code ec;
      fs::remove_all(root_, ec);
    }
  }

  fs::path root_;
  std::unique_ptr<ostrand_test::RunningServer> server_;
  std::unique_ptr<httplib::Client> client_;
  std::string uuid_;
  int64_t records_ = 0, end_ = 0;
  std::map<std::string, std::string> outputs_;
};

std::map<uint64_t, std::unique_ptr<ServedCapture>>& captures() {
  static std::map<uint64_t, std::unique_ptr<ServedCapture>> all;
  return all;
}

// One capture is served at a time: the model manager is process-wide, so a
// second server cannot start beside the first, and two streams of 100
// million records would not fit in memory together. The benchmarks run size
// by size, so each capture is made once.
ServedCapture& capture(uint64_t records) {
  auto& all = captures();
  if (auto it = all.find(records); it != all.end()) return *it->second;
  all.clear();
  return *all.emplace(records, std::make_unique<ServedCapture>(records)).first->second;
}

// Times each request; reports the median as `p50_us`.
template <typename Request>
void timeRequests(benchmark::State& state, Request request) {
  std::vector<double> micros;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    auto res = request();
    const auto t1 = std::chrono::steady_clock::now();
    if (!res || res->status != 200) {
      state.SkipWithError("request failed");
      return;
    }
    benchmark::DoNotOptimize(res->body.data());
    micros.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
  }
  std::nth_element(micros.begin(), micros.begin() + micros.size() / 2, micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
}

void BM_Health(benchmark::State& state) {
  auto& c = capture(static_cast<uint64_t>(state.range(0)));
  timeRequests(state, [&] { return c.client().Get("/tsp/api/health"); });
}

void BM_TableLines200(benchmark::State& state) {
  auto& c = capture(static_cast<uint64_t>(state.range(0)));
  const std::string path = c.base() + "/table/" + c.output("Records") + "/lines";
  // A window in the middle of the stream.
  const std::string body =
      json{{"parameters",
            {{"requested_table_index", c.records() / 2}, {"requested_table_count", 200}}}}
          .dump();
  timeRequests(state, [&] { return c.client().Post(path, body, "application/json"); });
  state.counters["records"] = static_cast<double>(c.records());
}

void BM_CurrentWholeStream(benchmark::State& state) {
  auto& c = capture(static_cast<uint64_t>(state.range(0)));
  const std::string path = c.base() + "/XY/" + c.output("Current") + "/xy";
  const std::string body =
      json{{"parameters",
            {{"requested_timerange", {{"start", 0}, {"end", c.end()}, {"nbTimes", 2000}}},
             {"requested_items", {1}}}}}
          .dump();
  timeRequests(state, [&] { return c.client().Post(path, body, "application/json"); });
}

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      auto p50 = run.counters.find("p50_us");
      if (p50 == run.counters.end()) continue;
      const std::string name = run.benchmark_name();
      std::string size = name.substr(name.find('/') + 1);
      size = size.substr(0, size.find('/'));
      figures_[size][name.substr(0, name.find('/'))] = p50->second.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const auto& [size, f] : figures_) {
      auto health = f.find("BM_Health");
      if (health == f.end() || health->second <= 0) continue;
      for (const auto& [name, p50] : f) {
        if (name == "BM_Health") continue;
        std::printf("%s records: %s p50 %.0f us = %.2fx health (%.0f us; target <= 3)\n",
                    size.c_str(), name.c_str(), p50, p50 / health->second, health->second);
      }
    }
  }

 private:
  std::map<std::string, std::map<std::string, double>> figures_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  std::vector<int64_t> sizes = {1'000'000};
  if (envSet("OSTRAND_WL_HTTP_100M")) sizes.push_back(100'000'000);
  for (int64_t size : sizes) {
    // Health first in each size, so the ratios pair figures of one server.
    benchmark::RegisterBenchmark("BM_Health", BM_Health)->Arg(size)->Iterations(300)->UseRealTime();
    benchmark::RegisterBenchmark("BM_TableLines200", BM_TableLines200)
        ->Arg(size)->Iterations(300)->UseRealTime();
    benchmark::RegisterBenchmark("BM_CurrentWholeStream", BM_CurrentWholeStream)
        ->Arg(size)->Iterations(300)->UseRealTime();
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  captures().clear();
  return 0;
}
