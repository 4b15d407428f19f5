#include "tsp_server/MetadataDiscovery.hpp"

#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <iostream>
#include <stdexcept>

#include "experiments/DataTree.hpp"
#include "source_utilities/Logger.hpp"

namespace VSKTspServer {

namespace fs = std::filesystem;

std::string getUserDir(const std::vector<std::string>& parts) {
  // The data tree's root is <user>/.QX-trace/data; its parent is the user
  // directory, one rule for both.
  fs::path dir = dataTreeRoot().parent_path().parent_path();
  for (const auto& part : parts) dir /= part;
  return dir.string();
}

namespace {

// A directory by device and inode, so a directory reached again through a
// symbolic link (a loop, or two links to one place) is walked once.
using DirectoryId = std::pair<dev_t, ino_t>;

void walk(const fs::path& dir, std::vector<std::string>& out, std::set<DirectoryId>& visited,
          bool print) {
  QX_TRACE_NAME("%s(...)\n", "VSKTspServer::recursiveFindMetadataFile");
  QX_TRACE_ARG("path", dir.c_str());
  struct stat info {};
  if (::stat(dir.c_str(), &info) != 0 || !visited.insert({info.st_dev, info.st_ino}).second) return;
  std::error_code ec;
  fs::directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec);
  // A branch that cannot be read ends there; the rest of the tree is still
  // walked.
  for (; !ec && it != fs::directory_iterator(); it.increment(ec)) {
    const fs::directory_entry& entry = *it;
    const std::string fileName = entry.path().filename().string();
    // Hidden entries are capture-side scratch space (".Wattline", editor
    // files): never traces.
    if (!fileName.empty() && fileName.front() == '.') continue;
    std::error_code typeError;
    if (entry.is_directory(typeError)) {
      // A link out of the data tree is not followed: nothing outside it is
      // ever opened.
      if (entry.is_symlink(typeError) && !insideDataTree(entry.path())) continue;
      walk(entry.path(), out, visited, print);
    } else if (fileName == "metadata") {
      out.push_back(entry.path().string());
      if (print) std::cout << entry.path().string() << std::endl;
    }
  }
  if (ec) {
    QX_LOG_ERROR("VSKTspServer::recursiveFindMetadataFile: %s not read: %s", dir.c_str(),
                 ec.message().c_str());
  }
}

}  // namespace

void recursiveFindMetadataFile(const std::string& dir, std::vector<std::string>& out) {
  std::set<DirectoryId> visited;
  walk(dir, out, visited, true);
}

std::vector<std::string> metadataFilesBelow(const std::string& dir) {
  std::vector<std::string> out;
  std::set<DirectoryId> visited;
  walk(dir, out, visited, false);
  return out;
}

}  // namespace VSKTspServer
