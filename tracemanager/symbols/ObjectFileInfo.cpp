#include "symbols/ObjectFileInfo.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <limits>
#include <list>
#include <mutex>
#include <stdexcept>

#include <boost/uuid/detail/sha1.hpp>
#include <boost/version.hpp>

#include "source_utilities/HostApis.hpp"
#include "source_utilities/Logger.hpp"
#include "symbols/DebugEnvironmentSimple.hpp"

namespace fs = std::filesystem;

namespace {

sym_lite::ISymbolManager* symbolManager() {
  return static_cast<sym_lite::ISymbolManager*>(QX_NLV::symbolManagerApi());
}

// Numbers the environments of packages made from a processor. Atomic:
// object files of several operations may load at the same time.
std::atomic<uint32_t> environmentCounter{1};

// Counts the loads of one loadFiles call that have not ended. The listeners
// live in a list so their addresses stay put: the host holds them until it
// reports.
class MultiLoadWaiter {
 public:
  class FileLoadListener final : public sym_lite::LoadListener {
   public:
    explicit FileLoadListener(MultiLoadWaiter* waiter) : waiter_(waiter) {}
    void onLoaded() override { waiter_->finish(this, 0, false); }
    void onLoadFailed(uint32_t status) override { waiter_->finish(this, status, true); }
    uint32_t status = 0;  // guarded by the waiter's mutex

   private:
    MultiLoadWaiter* waiter_;
  };

  FileLoadListener* add() {
    std::lock_guard lock(mutex_);
    ++pending_;
    return &listeners_.emplace_back(this);
  }

  std::vector<uint32_t> wait() {
    std::unique_lock lock(mutex_);
    done_.wait(lock, [this] { return pending_ == 0; });
    std::vector<uint32_t> statuses;
    for (const auto& listener : listeners_) statuses.push_back(listener.status);
    return statuses;
  }

 private:
  void finish(FileLoadListener* listener, uint32_t status, bool failed) {
    std::lock_guard lock(mutex_);
    if (failed) listener->status = status;
    --pending_;
    done_.notify_all();
  }

  std::mutex mutex_;  // guards pending_, listeners_ and each listener's status
  std::condition_variable done_;
  size_t pending_ = 0;
  std::list<FileLoadListener> listeners_;
};

std::shared_ptr<sym_lite::ISymbolPackage> wrapPackage(sym_lite::ISymbolManager* manager,
                                                      sym_lite::ISymbolPackage* package) {
  return {package, [manager](sym_lite::ISymbolPackage* p) { manager->releasePackage(p); }};
}

void requireVersion(sym_lite::ISymbolManager* manager) {
  if (manager->getVersion() != sym_lite::ISymbolManager::kVersion)
    throw std::runtime_error("Mismatch API version");
}

}  // namespace

std::shared_ptr<ObjectFileInfo> ObjectFileInfo::create(const std::string& objectFile) {
  QX_TRACE_FUNCTION("ObjectFileInfo::create");
  QX_TRACE_ARG("objectFile", objectFile.c_str());
  auto* manager = symbolManager();
  if (!manager) return {};
  requireVersion(manager);
  auto* package = manager->openPackage(objectFile.c_str());
  if (!package) throw std::runtime_error("Failed to create the symbol package interface");
  // Private constructor: make_shared cannot reach it.
  return std::shared_ptr<ObjectFileInfo>(new ObjectFileInfo(wrapPackage(manager, package)));
}

ObjectFileInfo::ObjectFileInfo(std::shared_ptr<sym_lite::ISymbolPackage> package)
    : package_(std::move(package)), lastRange_(ranges_.end()) {
  setObjectFile(package_->objectFilePath());
  buildSourceIndex();
}

ObjectFileInfo::ObjectFileInfo(uint32_t family, uint32_t variant) : lastRange_(ranges_.end()) {
  QX_TRACE_FUNCTION("ObjectFileInfo::ObjectFileInfo");
  auto [processorClass, processorModel] = processorSelection(family, variant);
  std::string name = "TraceObjFile" + std::to_string(environmentCounter.fetch_add(1));
  debugEnvironment_ =
      std::make_unique<sym_lite::DebugEnvironmentSimple>(name, processorClass, processorModel);
  auto* manager = symbolManager();
  if (!manager) throw std::runtime_error("Failed to create the symbol package interface");
  requireVersion(manager);
  auto* package = manager->createPackage(debugEnvironment_.get());
  if (!package) throw std::runtime_error("Failed to create the symbol package interface");
  package_ = wrapPackage(manager, package);
}

ObjectFileInfo::~ObjectFileInfo() = default;

std::pair<uint32_t, uint32_t> ObjectFileInfo::processorSelection(uint32_t family,
                                                                  uint32_t variant) {
  if (family == 320) {
    switch (variant) {
      case 32: case 36: case 39: case 40: return {1, 10};
      case 41: return {1, 9};
      default: return {4, 16};
    }
  }
  if (family == 470) {
    switch (variant) {
      case 7: case 9: case 12: case 21: return {0, 1};
      case 10: return {0, 0};
      case 13: return {0, 3};
      case 14: return {0, 2};
      case 51: return {0, 5};
      case 82: return {0, 6};
      case 83: return {0, 4};
      default: return {0, 8};
    }
  }
  return {4, 16};
}

std::vector<FileLoadResult> ObjectFileInfo::loadFiles(const std::vector<std::string>& paths) {
  QX_TRACE_FUNCTION("ObjectFileInfo::loadFiles");
  std::vector<FileLoadResult> results;
  {
    MultiLoadWaiter waiter;
    // Every load starts before the first wait, so the host may run them
    // together; a listener may also report before loadFile returns.
    for (const auto& path : paths) package_->loadFile(path.c_str(), waiter.add());
    auto statuses = waiter.wait();
    for (size_t i = 0; i < paths.size(); ++i) results.push_back({paths[i], statuses[i]});
  }
  setObjectFile(package_->objectFilePath());
  buildSourceIndex();
  return results;
}

fs::path ObjectFileInfo::normalisedPath(std::string_view text) {
  std::string slashed(text);
  std::replace(slashed.begin(), slashed.end(), '\\', '/');
  return fs::path(slashed).lexically_normal();
}

std::string ObjectFileInfo::sha1File(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  boost::uuids::detail::sha1 sha;
  char block[1024];
  while (in) {
    in.read(block, sizeof block);
    if (in.gcount() > 0) sha.process_bytes(block, static_cast<size_t>(in.gcount()));
  }
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string hex;
#if BOOST_VERSION < 108600
  // Five 32-bit words, each printed most significant digit first.
  unsigned int words[5];
  sha.get_digest(words);
  for (unsigned int word : words)
    for (int shift = 28; shift >= 0; shift -= 4) hex += kDigits[(word >> shift) & 0xF];
#else
  boost::uuids::detail::sha1::digest_type bytes;
  sha.get_digest(bytes);
  for (unsigned char byte : bytes) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 0xF];
  }
#endif
  return hex;
}

void ObjectFileInfo::setObjectFile(const std::string& text) {
  objectFile_ = normalisedPath(text);
  if (objectFile_.empty()) {
    sha1_.clear();
    timestamp_ = 0;
    return;
  }
  sha1_ = sha1File(objectFile_);
  std::error_code error;
  auto written = fs::last_write_time(objectFile_, error);
  if (error) throw fs::filesystem_error("last_write_time", objectFile_, error);
  auto system = std::chrono::file_clock::to_sys(written);
  // duration_cast cuts towards zero, as whole seconds since 1970 must.
  timestamp_ = std::chrono::duration_cast<std::chrono::seconds>(system.time_since_epoch()).count();
}

std::vector<CompileUnit> ObjectFileInfo::listCompileUnits() const {
  std::vector<CompileUnit> units;
  if (!package_) return units;
  uint32_t count = package_->compileUnitCount();
  for (uint32_t u = 0; u < count; ++u) {
    auto* unit = package_->compileUnit(u);
    if (!unit) continue;
    sym_lite::UnitInfo info{};
    unit->info(&info);
    if (!info.name) continue;
    CompileUnit& out = units.emplace_back();
    out.directory = info.directory ? info.directory : "";
    out.name = info.name;
    out.sections.resize(info.sectionCount);
    for (uint32_t s = 0; s < info.sectionCount; ++s) {
      auto* section = unit->section(s);
      if (!section) continue;  // an empty UnitSection keeps the positions
      sym_lite::SectionInfo sectionInfo{};
      section->info(&sectionInfo);
      UnitSection& target = out.sections[s];
      target.name = sectionInfo.name ? sectionInfo.name : "";
      target.data = sectionInfo.data;
      target.baseAddress = sectionInfo.baseAddress;
      target.ranges.resize(sectionInfo.rangeCount);
      target.lines.resize(sectionInfo.lineCount);
      if (sectionInfo.rangeCount) section->ranges(target.ranges.data());
      if (sectionInfo.lineCount) section->lines(target.lines.data());
    }
  }
  return units;
}

void ObjectFileInfo::buildSourceIndex() {
  QX_TRACE_FUNCTION("ObjectFileInfo::buildSourceIndex");
  // Keys point into sourceFiles_: clear the lines first.
  sourceLines_.clear();
  sourceFiles_.clear();
  std::map<fs::path, std::vector<uint32_t>> wanted;
  for (const auto& unit : listCompileUnits()) {
    for (const auto& section : unit.sections) {
      for (const auto& entry : section.lines) {
        if (entry.line == 0 || !entry.fileName) continue;
        fs::path path = normalisedPath(entry.directory ? entry.directory : "") / entry.fileName;
        wanted[path].push_back(entry.line);
      }
    }
  }
  for (auto& [path, lines] : wanted) {
    std::sort(lines.begin(), lines.end());
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    readSourceLines(path, lines);
  }
  buildRanges();
}

// Compilers often name sources relative to the directory the build ran in
// (a prefix map keeps build directories out of the debug information). When
// such a path does not open from the working directory, it is looked for
// from the object file's directory and each directory above it, so the text
// is found whichever directory the program was started from.
std::ifstream ObjectFileInfo::openSource(const fs::path& path) const {
  std::ifstream in(path);
  if (in || path.is_absolute() || objectFile_.empty()) return in;
  std::error_code error;
  fs::path directory = fs::absolute(objectFile_, error).parent_path();
  while (!error && !directory.empty()) {
    in = std::ifstream(directory / path);
    if (in) return in;
    fs::path parent = directory.parent_path();
    if (parent == directory) break;
    directory = std::move(parent);
  }
  return in;
}

void ObjectFileInfo::readSourceLines(const fs::path& path, const std::vector<uint32_t>& lines) {
  std::ifstream in = openSource(path);
  if (!in) return;
  std::string text;
  uint32_t number = 0;
  auto next = lines.begin();
  // One forward pass, ending at the last wanted line.
  while (next != lines.end() && std::getline(in, text)) {
    ++number;
    if (number != *next) continue;
    const fs::path* stored = &*sourceFiles_.insert(path).first;
    sourceLines_[{stored, number}] = text;
    ++next;
  }
}

// The function ranges of the package, half-open and without overlaps: an
// address lies in at most one, and the one found is the last that starts at
// or below it.
void ObjectFileInfo::buildRanges() {
  ranges_.clear();
  lastRange_ = ranges_.end();
  if (!package_) return;
  uint32_t count = package_->functionCount();
  uint64_t coveredTo = 0;
  for (uint32_t i = 0; i < count; ++i) {
    sym_lite::FunctionRange range{};
    if (!package_->functionRange(i, &range) || range.start >= range.end) continue;
    if (!ranges_.empty() && range.start < coveredTo) continue;
    ranges_.emplace(std::pair{range.start, range.end}, i + 1);
    coveredTo = range.end;
  }
  lastRange_ = ranges_.end();
}

bool ObjectFileInfo::lookupFunction(uint64_t address, std::string& function, std::string& file,
                                    std::string& directory) const {
  if (!package_) return false;
  sym_lite::FunctionInfo info{};
  package_->findFunction(&info, address, 0);
  if (!info.function) return false;
  function = info.function;
  file = info.file ? info.file : "";
  directory = info.directory ? info.directory : "";
  return true;
}

bool ObjectFileInfo::lookupSourceLine(uint64_t address, uint32_t* line, const char** text) const {
  if (!package_) return false;
  sym_lite::SourceLineInfo info{};
  package_->findSourceLine(&info, address);
  if (!info.file) return false;
  if (text) {
    fs::path path = normalisedPath(info.file);
    auto found = sourceLines_.find({&path, info.line});
    *text = found == sourceLines_.end() ? kSourceNotFound : found->second.c_str();
  }
  if (line) *line = info.line;
  return true;
}

bool ObjectFileInfo::lookupRange(uint64_t address, uint32_t* value) {
  auto inside = [address](RangeMap::const_iterator it) {
    return it->first.first <= address && address < it->first.second;
  };
  if (lastRange_ == ranges_.end() || !inside(lastRange_)) {
    lastRange_ = ranges_.end();
    auto it = ranges_.upper_bound({address, std::numeric_limits<uint64_t>::max()});
    if (it != ranges_.begin() && inside(std::prev(it))) lastRange_ = std::prev(it);
  }
  if (lastRange_ == ranges_.end()) {
    *value = 0;
    return false;
  }
  *value = lastRange_->second;
  return true;
}
