// Table requests of the trace server over real HTTP on loopback, against
// GET /tsp/api/health measured in the same run.
//
// A viewer asks for 200 lines at a time. The figures that matter are the
// median latency of such a request on an MTB table and on a generic (TDF)
// table, each of 10,000 and of 1,000,000 lines, as a multiple of the health
// request's median: the request should cost little more than the round trip
// and not grow with the table.
//
// Counters: p50_us (median of the single requests), x_health (p50 over the
// health request's p50).
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "LoopbackPort.hpp"
#include "experiments/VSKExperiment.hpp"
#include "experiments/generator/SampleCaptureWriter.hpp"
#include "tsp_server/ModelManager.hpp"
#include "tsp_server/TspServer.hpp"
#include "tsp_server/models/TableLinesWriter.hpp"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kLinesPerRequest = 200;

// A capture of the shared sample writers under the live tree of `root`.
void writeCapture(const fs::path& root, const std::string& device, const std::string& type,
                  uint64_t size) {
  namespace samples = VSKTspServer::samples;
  const std::string dir = samples::captureDirectory(root.string(), "live-targets", device, type);
  const bool mtb = type == "MTB";
  const std::string file = dir + (mtb ? "/mtb_data.json" : "/tdf_data.json");
  if (!samples::writeMetadataFile(dir, type, device, mtb ? "mtb_data.json" : "tdf_data.json") ||
      !(mtb ? samples::writeMtbDocument(file, size, 1)
            : samples::writeTdfDocument(file, size, 1))) {
    std::fprintf(stderr, "bench: cannot write %s\n", file.c_str());
    std::exit(1);
  }
}

struct Table {
  std::string uuid;
  std::string output;
  int64_t size = 0;
};

// One server over four captures, shared by every benchmark of the run.
class Fixture {
 public:
  Fixture() {
    std::random_device random;
    root_ = fs::temp_directory_path() / ("ostrand-bench-" + std::to_string(random()));
    ::setenv("USERPROFILE", root_.c_str(), 1);
    std::fprintf(stderr, "writing sample captures (1,000,000 lines)...\n");
    writeCapture(root_, "Bench/Mtb10k", "MTB", 10'000);
    writeCapture(root_, "Bench/Mtb1M", "MTB", 1'000'000);
    writeCapture(root_, "Bench/Tdf10k", "TDF", 10'000);
    writeCapture(root_, "Bench/Tdf1M", "TDF", 1'000'000);

    server_.port = ostrand_test::freeLoopbackPort();
    thread_ = std::thread([this] { server_.run(); });
    for (int i = 0; i < 500 && !server_.isListening() && !server_.listenFailed(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!server_.isListening()) {
      std::fprintf(stderr, "bench: the server did not come up\n");
      std::exit(1);
    }
    std::fprintf(stderr, "loading the captures...\n");
    server_.refreshLive();
    server_.refresh("");  // MTB tables show one line per instruction from here on
    client_ = std::make_unique<httplib::Client>("localhost", server_.port);
    client_->set_keep_alive(true);
    // A viewer's client sends a POST as header and body in two writes; with
    // Nagle's algorithm the body waits for the delayed ACK of the header.
    client_->set_tcp_nodelay(true);
    for (auto& e : nlohmann::json::parse(client_->Get("/tsp/api/experiments")->body)) {
      const std::string uuid = e["UUID"];
      auto outputs = nlohmann::json::parse(
          client_->Get("/tsp/api/experiments/" + uuid + "/outputs")->body);
      tables_[e["name"]] = Table{uuid, outputs.at(0)["id"], 0};
    }
  }
  ~Fixture() {
    client_.reset();
    server_.terminate();
    thread_.join();
    std::error_code ec;
    fs::remove_all(root_, ec);
  }

  httplib::Client& client() { return *client_; }
  const Table& table(const std::string& name) { return tables_.at(name); }

 private:
  fs::path root_;
  VSKTspServer::TspServer server_;
  std::thread thread_;
  std::unique_ptr<httplib::Client> client_;
  std::map<std::string, Table> tables_;
};

// Made by the first benchmark that needs it, destroyed after the run (it
// removes its sample captures).
std::unique_ptr<Fixture> gFixture;

Fixture& fixture() {
  if (!gFixture) gFixture = std::make_unique<Fixture>();
  return *gFixture;
}

double gHealthP50Us = 0;

double median(std::vector<double>& samples) {
  std::nth_element(samples.begin(), samples.begin() + samples.size() / 2, samples.end());
  return samples[samples.size() / 2];
}

template <typename Request>
void measure(benchmark::State& state, Request request, bool isBaseline) {
  std::vector<double> samples;
  for (auto _ : state) {
    const auto begin = Clock::now();
    auto res = request();
    const auto end = Clock::now();
    if (!res || res->status != 200) {
      state.SkipWithError("request failed");
      return;
    }
    samples.push_back(std::chrono::duration<double, std::micro>(end - begin).count());
  }
  const double p50 = median(samples);
  if (isBaseline) gHealthP50Us = p50;
  state.counters["p50_us"] = p50;
  if (gHealthP50Us > 0) state.counters["x_health"] = p50 / gHealthP50Us;
}

void BM_Health(benchmark::State& state) {
  auto& f = fixture();
  measure(state, [&] { return f.client().Get("/tsp/api/health"); }, true);
}

void tableLines(benchmark::State& state, const std::string& experiment) {
  auto& f = fixture();
  const Table& t = f.table(experiment);
  const std::string path =
      "/tsp/api/experiments/" + t.uuid + "/outputs/table/" + t.output + "/lines";
  // The middle of the table: a viewer scrolled halfway down.
  auto size = nlohmann::json::parse(
      f.client()
          .Post(path, R"({"parameters":{"requested_table_index":0,"requested_table_count":1}})",
                "application/json")
          ->body)["model"]["size"]
                  .get<int64_t>();
  const std::string body = nlohmann::json{{"parameters",
                                           {{"requested_table_index", size / 2},
                                            {"requested_table_count", kLinesPerRequest}}}}
                               .dump();
  measure(state, [&] { return f.client().Post(path, body, "application/json"); }, false);
  state.counters["lines"] = static_cast<double>(size);
}

void BM_MtbLines_10k(benchmark::State& state) { tableLines(state, "Mtb10k_CoreTrace"); }
void BM_MtbLines_1M(benchmark::State& state) { tableLines(state, "Mtb1M_CoreTrace"); }
void BM_GenericLines_10k(benchmark::State& state) { tableLines(state, "Tdf10k_TDF"); }
void BM_GenericLines_1M(benchmark::State& state) { tableLines(state, "Tdf1M_TDF"); }

// Where the time of a table request goes, in-process: the provider's
// getLines, and the text of its answer; or the text that the table writes
// itself, as the lines route asks for first.
void inProcess(benchmark::State& state, const std::string& experiment, bool withText,
               bool direct = false) {
  auto& f = fixture();
  const Table& t = f.table(experiment);
  std::lock_guard lock(VSKTspServer::tspMutex);
  auto* table = dynamic_cast<VSKTspServer::VSKTableProvider*>(
      VSKTspServer::theModelManager->getExperiment(t.uuid)->getOutput(t.output));
  VSKTspServer::TableLinesRequest request;
  request.requested_table_index = 5000;
  request.requested_table_count = kLinesPerRequest;
  if (direct) {
    for (auto _ : state) {
      std::string text;
      if (!table->writeLines(request, text)) {
        state.SkipWithError("the table declined to write its lines");
        return;
      }
      benchmark::DoNotOptimize(text);
    }
    return;
  }
  for (auto _ : state) {
    auto response = table->getLines(request);
    if (withText) benchmark::DoNotOptimize(VSKTspServer::writeTableLinesResponse(response));
    benchmark::DoNotOptimize(response);
  }
}
void BM_MtbGetLinesInProcess(benchmark::State& state) { inProcess(state, "Mtb1M_CoreTrace", false); }
void BM_MtbGetLinesAndTextInProcess(benchmark::State& state) {
  inProcess(state, "Mtb1M_CoreTrace", true);
}
void BM_GenericGetLinesAndTextInProcess(benchmark::State& state) {
  inProcess(state, "Tdf1M_TDF", true);
}
void BM_MtbWriteLinesInProcess(benchmark::State& state) {
  inProcess(state, "Mtb1M_CoreTrace", true, true);
}
void BM_GenericWriteLinesInProcess(benchmark::State& state) {
  inProcess(state, "Tdf1M_TDF", true, true);
}

// Health first: it is the baseline of the others.
BENCHMARK(BM_Health)->Iterations(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MtbLines_10k)->Iterations(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MtbLines_1M)->Iterations(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GenericLines_10k)->Iterations(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GenericLines_1M)->Iterations(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MtbGetLinesInProcess)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MtbGetLinesAndTextInProcess)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GenericGetLinesAndTextInProcess)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MtbWriteLinesInProcess)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GenericWriteLinesInProcess)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  gFixture.reset();
  return 0;
}
