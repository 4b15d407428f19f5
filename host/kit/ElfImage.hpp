// ElfImage: one ARM ELF file, read once and indexed for lookups by address.
//
// Loading reads the symbol table, the mapping symbols of each section, the
// line tables and the function scopes (with their inlined calls) of the
// debug information into sorted arrays, because per-address scope queries
// through libdw cost a tree walk each. After load() the object is immutable
// and every lookup is a binary search.
//
// Ownership: the code bytes of sections point into the mapped file, which
// the image keeps open until it dies. Threads: load() once; lookups from any
// thread after that. Errors: load() answers a sym_lite load status.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "sym_lite/SymbolManager.hpp"

namespace hostkit {

// A section's part of a compile unit, for ICompileUnit.
struct ElfUnitSection {
  std::string name;
  uint64_t data = 0;
  uint64_t baseAddress = 0;
  std::vector<sym_lite::AddressRange> ranges;
  std::vector<sym_lite::LineEntry> lines;
};

struct ElfUnit {
  const char* directory = "";
  const char* name = nullptr;
  std::vector<ElfUnitSection> sections;
};

struct ElfSection {
  std::string name;
  uint64_t address = 0;
  uint64_t size = 0;
  const uint8_t* bytes = nullptr;  // null for sections without file data
  bool executable = false;
  size_t elfIndex = 0;
  // Mapping symbols of this section only, by address: 'a' Arm, 't' Thumb,
  // 'd' data.
  std::vector<std::pair<uint64_t, char>> mapping;
};

// A function scope: a whole function, or an inlined call inside one.
struct Scope {
  uint64_t start = 0;
  uint64_t end = 0;
  const char* name = nullptr;
  const char* file = nullptr;       // base name of the declaring file
  const char* directory = nullptr;  // its directory
  uint32_t depth = 0;               // 0 for a whole function
};

struct Function {
  Scope scope;
  std::vector<Scope> inlined;  // nested calls, any depth
  bool thumb = false;
};

class ElfImage {
 public:
  ElfImage();
  ~ElfImage();
  ElfImage(const ElfImage&) = delete;
  ElfImage& operator=(const ElfImage&) = delete;

  // 0 on success, else a sym_lite::kLoad* status.
  uint32_t load(const std::string& path);

  const std::string& path() const { return path_; }
  bool bigEndian() const { return bigEndian_; }
  // 'M', 'A', 'R' from the build attributes, or 0 when they do not say.
  char profile() const { return profile_; }

  std::optional<uint64_t> findSymbol(std::string_view name) const;
  // The innermost scope that holds the address, with the line's file when
  // the scope has none.
  const Scope* findScope(uint64_t address) const;
  const Function* findFunction(uint64_t address) const;
  // File (full path) and line of the address, as the line table has them;
  // `directory` and `name` (optional) get the two parts of the path.
  bool findLine(uint64_t address, const char** file, uint32_t* line,
                const char** directory = nullptr, const char** name = nullptr) const;

  const ElfSection* sectionAt(uint64_t address) const;
  // 'a', 't', 'd', or 0 where the section has no mapping symbol before it.
  char mappingAt(const ElfSection& section, uint64_t address) const;

  // Start addresses of the sections that have bytes in the file.
  std::vector<uint64_t> sectionStarts() const;
  const std::vector<Function>& functions() const { return functions_; }
  const std::vector<ElfUnit>& units() const { return units_; }

 private:
  struct LineSpan {
    uint64_t start;
    uint64_t end;
    const char* file;
    const char* directory;
    const char* name;
    uint32_t line;
  };

  bool readSections();
  void readSymbols();
  void readAttributes();
  bool readDebugInfo();
  void addSymbolFunctions();
  // Collects whole functions into functions_ and inlined calls into
  // `inlined`, below one debug entry (a Dwarf_Die*).
  void walkScopes(void* die, uint32_t depth, std::vector<Scope>& inlined);
  const char* intern(std::string_view text);
  bool inExecutable(uint64_t address) const;

  std::string path_;
  int fd_ = -1;
  struct ElfHandle;
  std::unique_ptr<ElfHandle> elf_;
  bool bigEndian_ = false;
  char profile_ = 0;
  std::vector<ElfSection> sections_;  // by address, allocated sections only
  std::unordered_map<std::string, uint64_t> symbols_;
  struct SymbolFunction {
    uint64_t start, end;
    const char* name;
    bool thumb;
  };
  std::vector<SymbolFunction> symbolFunctions_;
  std::vector<Function> functions_;  // by address, without overlaps
  std::vector<LineSpan> lines_;      // by address, without overlaps
  std::vector<ElfUnit> units_;
  const ElfUnit* unit_ = nullptr;  // the unit walkScopes is in
  std::unordered_map<std::string_view, const char*> interned_;
  std::deque<std::string> strings_;  // nodes stay put: interned_ points into it
};

}  // namespace hostkit
