// A scripted symbol manager for the module's tests: packages whose answers,
// line tables and load outcomes a test sets up, so each edge of
// ObjectFileInfo can be reached without a real object file.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "sym_lite/SymbolManager.hpp"

namespace fake {

struct Line {
  std::string directory;
  std::string fileName;
  uint32_t line;
};

// The package is its own one compile unit with one section.
class Package final : public sym_lite::ISymbolPackage,
                      public sym_lite::ICompileUnit,
                      public sym_lite::IUnitSection {
 public:
  // What loadFile does: the status per path, and how it reports.
  enum class Report { BeforeReturn, LaterReversed };
  std::map<std::string, uint32_t> loadStatus;
  Report report = Report::BeforeReturn;
  std::string objectPath;
  std::vector<Line> lineTable;
  std::map<uint64_t, std::pair<std::string, uint32_t>> sourceLines;  // address -> file, line
  std::map<uint64_t, std::string> functions;
  std::vector<sym_lite::FunctionRange> functionRanges;
  uint32_t bigEndian = 0;
  std::vector<std::string> loaded;
  const sym_lite::DebugEnvironment* environment = nullptr;

  ~Package() { join(); }

  void join() {
    for (auto& t : threads_) t.join();
    threads_.clear();
  }

  void loadFile(const char* path, sym_lite::LoadListener* listener) override {
    loaded.push_back(path);
    uint32_t status = loadStatus.count(path) ? loadStatus[path] : 0;
    auto fire = [listener, status] {
      if (status == 0)
        listener->onLoaded();
      else
        listener->onLoadFailed(status);
    };
    if (report == Report::BeforeReturn) {
      fire();
      return;
    }
    pendingFires_.push_back(fire);
    // The last load starts one thread that reports all of them, newest first.
    if (loaded.size() == expectedLoads) {
      auto fires = pendingFires_;
      threads_.emplace_back([fires] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        for (auto it = fires.rbegin(); it != fires.rend(); ++it) (*it)();
      });
    }
  }
  size_t expectedLoads = 0;

  int findSymbol(const char*, uint64_t*) override { return 0; }
  void findFunction(sym_lite::FunctionInfo* out, uint64_t address, uint32_t) override {
    auto it = functions.find(address);
    if (it == functions.end()) {
      out->function = nullptr;
      return;
    }
    *out = {it->second.c_str(), "file.c", "/dir"};
  }
  void findSourceLine(sym_lite::SourceLineInfo* out, uint64_t address) override {
    auto it = sourceLines.find(address);
    if (it == sourceLines.end()) {
      out->file = nullptr;
      return;
    }
    *out = {it->second.first.c_str(), it->second.second};
  }
  uint32_t compileUnitCount() override { return 1; }
  sym_lite::ICompileUnit* compileUnit(uint32_t index) override {
    return index == 0 ? this : nullptr;
  }
  sym_lite::IUnitSection* section(uint32_t index) override { return index == 0 ? this : nullptr; }
  void info(sym_lite::UnitInfo* out) override { *out = {"/dir", "unit.c", 1}; }
  void info(sym_lite::SectionInfo* out) override {
    *out = {".text", 0, 0, uint32_t(lineTable.size()), 0};
  }
  void ranges(sym_lite::AddressRange*) override {}
  void lines(sym_lite::LineEntry* out) override {
    for (const auto& line : lineTable)
      *out++ = {line.directory.c_str(), line.fileName.c_str(), line.line, 0, 0, 0, 0};
  }
  const char* objectFilePath() override { return objectPath.c_str(); }
  uint32_t isBigEndian() override { return bigEndian; }
  void* symbolHandle() override { return this; }
  uint32_t functionCount() override { return uint32_t(functionRanges.size()); }
  bool functionRange(uint32_t index, sym_lite::FunctionRange* out) override {
    if (index >= functionRanges.size()) return false;
    *out = functionRanges[index];
    return true;
  }

 private:
  std::vector<std::function<void()>> pendingFires_;
  std::vector<std::thread> threads_;
};

class Manager : public sym_lite::ISymbolManager {
 public:
  uint32_t version = kVersion;
  bool failCreate = false;
  std::function<void(Package&)> setUp;  // runs on every new package
  std::vector<std::string> log;         // what releasePackage saw

  uint32_t getVersion() override { return version; }
  sym_lite::ISymbolPackage* createPackage(sym_lite::DebugEnvironment* environment) override {
    return make(environment);
  }
  sym_lite::ISymbolPackage* openPackage(const char*) override { return make(nullptr); }
  void releasePackage(sym_lite::ISymbolPackage* package) override {
    // The environment must still be alive here: reading its name would
    // fault under the address sanitizer otherwise.
    auto* own = static_cast<Package*>(package);
    log.push_back(own->environment ? std::string("release ") + own->environment->name()
                                   : std::string("release"));
    delete own;
  }

 private:
  Package* make(const sym_lite::DebugEnvironment* environment) {
    if (failCreate) return nullptr;
    auto* package = new Package;
    package->environment = environment;
    if (setUp) setUp(*package);
    return package;
  }
};

}  // namespace fake
