#include "experiments/DataTree.hpp"

#include <stdexcept>

#include "source_utilities/Platform.hpp"

namespace VSKTspServer {

namespace fs = std::filesystem;

namespace {

// weakly_canonical resolves the part that exists and normalises the rest,
// so a file still to be written is judged by its directory.
fs::path resolved(const fs::path& path) {
  std::error_code ec;
  fs::path result = fs::weakly_canonical(fs::absolute(path, ec), ec);
  if (ec) return fs::absolute(path).lexically_normal();
  return result;
}

// Component-wise, so "/data-other" is not inside "/data".
bool isWithin(const fs::path& inner, const fs::path& outer) {
  auto i = inner.begin();
  for (auto o = outer.begin(); o != outer.end(); ++o, ++i) {
    if (o->empty()) continue;  // trailing separator of `outer`
    if (i == inner.end() || *i != *o) return false;
  }
  return true;
}

}  // namespace

fs::path dataTreeRoot() {
  const std::string home = QX_NLV::platform::homeDirectory();
  if (home.empty())
    throw std::runtime_error("The user directory is unknown: set USERPROFILE or HOME");
  return fs::path(home) / ".QX-trace" / "data";
}

bool insideDataTree(const fs::path& path) {
  return isWithin(resolved(path), resolved(dataTreeRoot()));
}

void requireInsideDataTree(const fs::path& path, const std::string& what) {
  if (!insideDataTree(path))
    throw OutsideDataTree(what + " '" + path.string() + "' lies outside the data tree " +
                          dataTreeRoot().string());
}

std::string captureFilePath(const std::string& dir, const std::string& name, bool confined) {
  if (name.empty() || name == "." || name == ".." ||
      name.find_first_of("/\\") != std::string::npos)
    throw OutsideDataTree("data file '" + name + "' of capture " + dir +
                          " is not a file name in the capture directory");
  std::string path = dir + "/" + name;
  if (confined) requireInsideDataTree(path, "data file");
  return path;
}

}  // namespace VSKTspServer
