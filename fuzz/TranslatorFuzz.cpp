// Fuzz target: one text through the JSON command translator, as a host's
// send() delivers it. Every input must end in replies, never in a crash,
// a hang or an exception out of process().
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "json_interface/Translator.hpp"

namespace {

JSONInterface::Translator& translator() {
  // Commands may touch the user's data tree: keep it in a scratch directory.
  static const bool home = [] {
    const auto dir = std::filesystem::temp_directory_path() / "ostrand-fuzz-home";
    std::filesystem::create_directories(dir);
    ::setenv("USERPROFILE", dir.c_str(), 1);
    return true;
  }();
  (void)home;
  static JSONInterface::Translator instance([](const std::string&) {});
  return instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  translator().process(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
