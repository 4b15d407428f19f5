// Fuzz target: a capture's `metadata` file as the trace server reads it when
// it opens the capture: the trace, its experiment name and its data file.
// A bad file may fail the capture with an exception (logged by the scan);
// it may not crash, hang, or name a data file outside the capture directory.
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "experiments/DataTree.hpp"
#include "experiments/VSKTrace.hpp"
#include "tsp_server/ModelManager.hpp"

namespace {

const std::string& captureDir() {
  static const std::string dir = [] {
    // Memory-backed where the system has it: the file is rewritten for
    // every input.
    const std::filesystem::path base =
        std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path();
    const auto path = base / ("ostrand-fuzz-capture-" + std::to_string(::getpid()));
    std::filesystem::create_directories(path);
    return path.string();
  }();
  return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    std::ofstream out(captureDir() + "/metadata", std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  try {
    VSKTspServer::VSKTrace trace("capture", captureDir(), "");
    (void)VSKTspServer::ModelManager::experimentName("root", trace);
    const std::string file = VSKTspServer::captureFilePath(
        captureDir(), VSKTspServer::dataFileName(trace, "mtb_data.json"), false);
    if (std::filesystem::path(file).parent_path() != captureDir()) std::abort();
    trace.readMetadata();
  } catch (const std::exception&) {
  }
  return 0;
}
