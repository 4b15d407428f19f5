// tsp_e2e_server: the trace server over a data tree, for the end-to-end test
// with the published protocol client (tests/e2e/run.sh).
//
// Beside what `ostrand serve` does, it writes one ETB capture directory and
// fills the data broker's ETB record store before it serves, as a decode
// would, then refreshes every experiment (an ETB table shows the store's
// records only from its first refresh on). Power captures are served as by
// `ostrand serve`: this program links the Wattline library and registers
// its kinds, which the server library itself never does. Serves until
// GET /stop.
//
// usage: tsp_e2e_server --port N --data DIR [--etb-records N]
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "ServerFixture.hpp"
#include "experiments/DataBrokerRouter.hpp"
#include "experiments/generator/SampleCaptureWriter.hpp"
#include "experiments/generator/SampleCaptures.hpp"
#include "tsp_server/ExperimentKinds.hpp"
#include "wattline/WLExperimentKind.hpp"

namespace {

std::vector<VSKTspServer::EtbRecordStore::Record> etbRecords(int count) {
  std::vector<VSKTspServer::EtbRecordStore::Record> records;
  records.reserve(count);
  char text[32];
  for (int i = 0; i < count; ++i) {
    std::snprintf(text, sizeof text, "%08X", 0x08000100 + 2 * i);
    records.push_back({{"addr", text},
                       {"asm", "2001"},
                       {"dasm", "  movs r0, #1"},
                       {"function", i % 7 == 0 ? "n/a" : "main"},
                       {"file", "main.c"},
                       {"dir", "/src"},
                       {"lno", std::to_string(10 + i % 30)},
                       {"src", "    counter++;"},
                       {"cycles", std::to_string(i)}});
  }
  return records;
}

}  // namespace

int main(int argc, char** argv) {
  int port = 0;
  int recordCount = 1000;
  std::string data;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string arg = argv[i];
    if (arg == "--port") port = std::atoi(argv[i + 1]);
    if (arg == "--data") data = argv[i + 1];
    if (arg == "--etb-records") recordCount = std::atoi(argv[i + 1]);
  }
  if (port <= 0 || data.empty()) {
    std::fprintf(stderr, "usage: tsp_e2e_server --port N --data DIR [--etb-records N]\n");
    return 2;
  }
  try {
    namespace samples = VSKTspServer::samples;
    ::setenv("USERPROFILE", data.c_str(), 1);
    const std::string etbDir =
        samples::captureDirectory(data, "live-targets", "Probe/Cortex_M3_2", "ETB");
    std::ofstream(etbDir + "/metadata")
        << samples::defaultMetadata("Probe/Cortex_M3_2", "ETB").dump();

    VSKTspServer::registerWattlineKinds(VSKTspServer::registerExperimentKind);
    ostrand_test::RunningServer running(port);  // terminated and joined when it goes
    VSKTspServer::TspServer& server = running.server();
    if (!server.isListening()) {
      std::fprintf(stderr, "tsp_e2e_server: cannot listen on port %d\n", port);
      return 5;
    }
    auto* router = dynamic_cast<VSKTspServer::DataBrokerRouter*>(server.getDataBroker());
    router->etbRecords.clear();
    router->etbRecords.append(etbRecords(recordCount));
    server.refreshLive();
    server.refresh("");
    std::printf("READY %d\n", port);
    std::fflush(stdout);
    running.join();  // until GET /stop
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tsp_e2e_server: %s\n", e.what());
    return 1;
  }
}
