// The host's symbol manager and its symbol packages.
//
// A host hands the module one ISymbolManager (through
// InitializeSymbolManagerAPI); the module asks it for packages, each of which
// answers questions about the object files loaded into it. Every class here
// is a virtual table read in slot order, so the order of the operations and
// the layout of the records must not change.
//
// Ownership: a package belongs to the manager that made it and is destroyed
// only by its releasePackage. Strings a package gives out stay valid until
// the package is released or loads another file. Records are filled by the
// package, never freed by the caller.
//
// Threads: a package answers one caller at a time; loadFile may report on
// any thread, also before it returns.
#pragma once

#include <cstddef>
#include <cstdint>

#include "logging/ILoggerContext.hpp"

namespace sym_lite {

// What the manager asks about the processor a package is made for.
class DebugEnvironment : public Logging::ILoggerContext {
 public:
  virtual uint32_t firstValue() const = 0;
  virtual uint32_t secondValue() const = 0;
  // Writes (processorClass in the low half, processorModel in the high
  // half) through `out` and gives `out` back.
  virtual uint64_t* processorSelector(uint64_t* out) const = 0;
  virtual void reserved() = 0;
};

// The end of one file load: exactly one of the two is called, once.
class LoadListener {
 public:
  virtual void onLoaded() = 0;
  virtual void onLoadFailed(uint32_t status) = 0;

 protected:
  ~LoadListener() = default;  // the package never deletes a listener
};

// Status codes of onLoadFailed.
inline constexpr uint32_t kLoadNotFound = 2;      // the file cannot be opened
inline constexpr uint32_t kLoadNotElf = 3;        // not an ELF file
inline constexpr uint32_t kLoadUnsupported = 4;   // an ELF file of another machine
inline constexpr uint32_t kLoadBadDebugInfo = 5;  // debug information cannot be read

struct FunctionInfo {
  const char* function;  // null: no function at the address
  const char* file;
  const char* directory;
};

struct SourceLineInfo {
  const char* file;  // null: no line at the address
  uint32_t line;
};

struct AddressRange {
  uint64_t start;
  uint64_t end;  // one past the last byte
};

// One row of a line table, a 40-byte record. Readers of the module use the
// first three fields only.
struct LineEntry {
  const char* directory;
  const char* fileName;
  uint32_t line;  // 0: no line
  uint32_t column;
  uint64_t address;
  uint32_t flags;  // kLineIsStatement, kLineEndSequence
  uint32_t reserved;
};
static_assert(sizeof(LineEntry) == 40);
static_assert(offsetof(LineEntry, directory) == 0);
static_assert(offsetof(LineEntry, fileName) == 8);
static_assert(offsetof(LineEntry, line) == 16);
inline constexpr uint32_t kLineIsStatement = 1;
inline constexpr uint32_t kLineEndSequence = 2;

struct UnitInfo {
  const char* directory;  // compilation directory, "" when unknown
  const char* name;       // null: the unit has no source and is skipped
  uint32_t sectionCount;
};

struct SectionInfo {
  const char* name;
  uint64_t data;         // address in memory of the section's first byte
  uint64_t baseAddress;  // target address of the first byte
  uint32_t lineCount;
  uint32_t rangeCount;
};

// One function of the loaded files, in ascending address order.
struct FunctionRange {
  const char* name;
  uint64_t start;
  uint64_t end;  // one past the last byte
};

class IUnitSection {
 public:
  virtual void info(SectionInfo* out) = 0;
  virtual void ranges(AddressRange* out) = 0;  // rangeCount entries
  virtual void lines(LineEntry* out) = 0;      // lineCount entries

 protected:
  ~IUnitSection() = default;
};

class ICompileUnit {
 public:
  virtual IUnitSection* section(uint32_t index) = 0;
  virtual void info(UnitInfo* out) = 0;

 protected:
  ~ICompileUnit() = default;
};

class ISymbolPackage {
 public:
  virtual void loadFile(const char* path, LoadListener* listener) = 0;
  // Non-zero with *address written, or 0 for an unknown symbol.
  virtual int findSymbol(const char* name, uint64_t* address) = 0;
  virtual void findFunction(FunctionInfo* out, uint64_t address, uint32_t flags) = 0;
  virtual void findSourceLine(SourceLineInfo* out, uint64_t address) = 0;
  virtual uint32_t compileUnitCount() = 0;
  virtual ICompileUnit* compileUnit(uint32_t index) = 0;
  virtual const char* objectFilePath() = 0;  // never null; "" with no file
  virtual uint32_t isBigEndian() = 0;        // true in the low byte
  virtual void* symbolHandle() = 0;          // for the same host's disassembler
  virtual uint32_t functionCount() = 0;
  // Fills *out for index < functionCount(); gives false otherwise.
  virtual bool functionRange(uint32_t index, FunctionRange* out) = 0;

 protected:
  ~ISymbolPackage() = default;  // released through ISymbolManager
};

class ISymbolManager {
 public:
  static constexpr uint32_t kVersion = 5;

  virtual uint32_t getVersion() = 0;
  // A new package without files, or null. The environment must outlive it.
  virtual ISymbolPackage* createPackage(DebugEnvironment* environment) = 0;
  // A new package with one file loaded, or null when it cannot be loaded.
  virtual ISymbolPackage* openPackage(const char* path) = 0;
  virtual void releasePackage(ISymbolPackage* package) = 0;

 protected:
  ~ISymbolManager() = default;
};

}  // namespace sym_lite
