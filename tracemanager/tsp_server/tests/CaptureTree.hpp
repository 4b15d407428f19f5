// Test helper: a temporary user directory with capture directories laid out
// as the capture side leaves them. It is the user's home for the test's life.
#pragma once

#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

#include "TestSupport.hpp"
#include "experiments/generator/SampleCaptureWriter.hpp"
#include "experiments/generator/SampleCaptures.hpp"

namespace ostrand_test {

class CaptureTree : public TempHome {
 public:
  std::filesystem::path liveTargets() const { return root() / ".QX-trace/data/live-targets"; }
  std::filesystem::path root() const { return path(); }

  // <live-targets>/<target>/<type>/ with a `metadata` file; gives the
  // directory.
  std::filesystem::path addLiveCapture(const std::string& target, const std::string& type,
                                       nlohmann::json metadata = nullptr) {
    namespace samples = VSKTspServer::samples;
    if (metadata.is_null()) metadata = samples::defaultMetadata(target, type);
    std::filesystem::path dir =
        samples::captureDirectory(root().string(), "live-targets", target, type);
    writeFile(dir / "metadata", metadata.dump());
    return dir;
  }

  static void writeFile(const std::filesystem::path& file, const std::string& text) {
    ostrand_test::writeFile(file, text);
  }
};

}  // namespace ostrand_test
