#include "MetadataDiscovery.hpp"

#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "Logger.hpp"
#include "uEnvironment.hpp"

namespace VSKTspServer {

namespace fs = std::filesystem;

std::string getUserDir(const std::vector<std::string>& parts) {
  std::string home = QX_NLV::getEnvironment("USERPROFILE");
  if (home.empty()) home = QX_NLV::getEnvironment("HOME");
  if (home.empty())
    throw std::runtime_error("The user directory is unknown: set USERPROFILE or HOME");
  fs::path dir(home);
  for (const auto& part : parts) dir /= part;
  return dir.string();
}

void recursiveFindMetadataFile(const std::string& dir, std::vector<std::string>& out) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::recursiveFindMetadataFile");
  QX_TRACE_ARG("path", dir.c_str());
  for (const auto& entry : fs::directory_iterator(dir)) {
    const std::string fileName = entry.path().filename().string();
    // Hidden entries are capture-side scratch space (".Wattline", editor
    // files): never traces.
    if (!fileName.empty() && fileName.front() == '.') continue;
    if (entry.is_directory()) {
      recursiveFindMetadataFile(entry.path().string(), out);
    } else if (fileName == "metadata") {
      out.push_back(entry.path().string());
      std::cout << entry.path().string() << std::endl;
    }
  }
}

}  // namespace VSKTspServer
