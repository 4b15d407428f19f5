// ObjectFileInfo: what one capture knows about its program's addresses.
//
// Wraps one symbol package of the host's symbol manager (HostApis) and
// answers, per address, the function, the source line with its text, and
// the function range index. The text of every source line that the debug
// information mentions is read once, when the object file is set, so that
// lookups never touch the disk.
//
// Ownership: shared (std::shared_ptr) between the operation record and the
// table readers. The package is released before the environment it was made
// for.
// Threads: construction and loadFiles on the caller's thread; lookups from
// one thread at a time (lookupRange moves a one-entry cache). Load listeners
// may run on any thread of the host.
// Errors: "Mismatch API version" and "Failed to create the symbol package
// interface" as std::runtime_error; a missing last write time as
// std::filesystem::filesystem_error. Unreadable object or source files are
// not errors.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "sym_lite/SymbolManager.hpp"

struct FileLoadResult {
  std::string path;
  uint32_t status = 0;  // 0: loaded
};

struct UnitSection {
  std::string name;
  uint64_t data = 0;
  uint64_t baseAddress = 0;
  std::vector<sym_lite::AddressRange> ranges;
  std::vector<sym_lite::LineEntry> lines;
};

struct CompileUnit {
  std::string directory;
  std::string name;
  std::vector<UnitSection> sections;
};

class ObjectFileInfo {
 public:
  // A package with `objectFile` loaded; empty when the host set no symbol
  // manager. The object file recorded is the one the package names.
  static std::shared_ptr<ObjectFileInfo> create(const std::string& objectFile);

  // An empty package for a processor (the family and variant of a processor
  // id). The caller has checked that a symbol manager is set.
  ObjectFileInfo(uint32_t family, uint32_t variant);
  ~ObjectFileInfo();
  ObjectFileInfo(const ObjectFileInfo&) = delete;
  ObjectFileInfo& operator=(const ObjectFileInfo&) = delete;

  // Loads every path (all started before the first wait), blocks until each
  // load has ended, and rebuilds the source index. Results in path order.
  std::vector<FileLoadResult> loadFiles(const std::vector<std::string>& paths);

  // The outputs are written only on true.
  bool lookupFunction(uint64_t address, std::string& function, std::string& file,
                      std::string& directory) const;
  // Either pointer may be null. *text stays valid as long as this object;
  // it is "<source not found>" when the line's text could not be read.
  bool lookupSourceLine(uint64_t address, uint32_t* line, const char** text) const;
  // The 1-based index of the function whose range holds the address.
  bool lookupRange(uint64_t address, uint32_t* value);

  const std::shared_ptr<sym_lite::ISymbolPackage>& package() const { return package_; }
  const sym_lite::DebugEnvironment* debugEnvironment() const { return debugEnvironment_.get(); }
  const std::filesystem::path& objectFile() const { return objectFile_; }
  const std::string& sha1() const { return sha1_; }
  int64_t timestamp() const { return timestamp_; }
  size_t sourceFileCount() const { return sourceFiles_.size(); }
  size_t sourceLineCount() const { return sourceLines_.size(); }
  size_t rangeCount() const { return ranges_.size(); }

  std::vector<CompileUnit> listCompileUnits() const;

  // Backslashes to "/", then the lexically normal form.
  static std::filesystem::path normalisedPath(std::string_view text);
  // Upper-case hexadecimal SHA-1 of a file, or "" if it cannot be opened.
  static std::string sha1File(const std::filesystem::path& path);
  // The symbol manager's (processorClass, processorModel) for a processor.
  static std::pair<uint32_t, uint32_t> processorSelection(uint32_t family, uint32_t variant);

  static constexpr const char* kSourceNotFound = "<source not found>";

 private:
  explicit ObjectFileInfo(std::shared_ptr<sym_lite::ISymbolPackage> package);

  void setObjectFile(const std::string& text);
  void buildSourceIndex();
  void buildRanges();
  void readSourceLines(const std::filesystem::path& path, const std::vector<uint32_t>& lines);
  std::ifstream openSource(const std::filesystem::path& path) const;

  struct PathHash {
    size_t operator()(const std::filesystem::path& path) const {
      return std::filesystem::hash_value(path);
    }
  };
  // A line's key points into sourceFiles_, so a path is stored once.
  using LineKey = std::pair<const std::filesystem::path*, uint32_t>;
  struct LineKeyHash {
    size_t operator()(const LineKey& key) const {
      return std::filesystem::hash_value(*key.first) * 31u + key.second;
    }
  };
  struct LineKeyEqual {
    bool operator()(const LineKey& a, const LineKey& b) const {
      return a.second == b.second && *a.first == *b.first;
    }
  };
  using RangeMap = std::map<std::pair<uint64_t, uint64_t>, uint32_t>;

  // Declared before the package so that it is destroyed after it.
  std::unique_ptr<sym_lite::DebugEnvironment> debugEnvironment_;
  std::shared_ptr<sym_lite::ISymbolPackage> package_;
  std::filesystem::path objectFile_;
  std::string sha1_;
  int64_t timestamp_ = 0;
  std::unordered_set<std::filesystem::path, PathHash> sourceFiles_;
  std::unordered_map<LineKey, std::string, LineKeyHash, LineKeyEqual> sourceLines_;
  RangeMap ranges_;
  RangeMap::const_iterator lastRange_;
};
