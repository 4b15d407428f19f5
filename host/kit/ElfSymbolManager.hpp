// ElfSymbolManager: the host's symbol manager on elfutils.
//
// Its packages read ARM ELF files with DWARF (any host architecture, either
// byte order) and answer every symbol package operation from indexes built
// once per file (ElfImage). A package may hold several files; lookups ask
// them in load order, and the package names the first file that loaded.
//
// Ownership: the manager owns every package it made until releasePackage.
// Threads: the manager is thread-safe; a package serves one caller at a
// time. loadFile loads on the caller's thread and reports before it
// returns, which the interface allows.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kit/ElfImage.hpp"
#include "sym_lite/SymbolManager.hpp"

namespace hostkit {

class ElfSymbolPackage final : public sym_lite::ISymbolPackage {
 public:
  explicit ElfSymbolPackage(const sym_lite::DebugEnvironment* environment = nullptr);
  ~ElfSymbolPackage();

  // 0 on success, else a sym_lite::kLoad* status.
  uint32_t load(const std::string& path);

  void loadFile(const char* path, sym_lite::LoadListener* listener) override;
  int findSymbol(const char* name, uint64_t* address) override;
  void findFunction(sym_lite::FunctionInfo* out, uint64_t address, uint32_t flags) override;
  void findSourceLine(sym_lite::SourceLineInfo* out, uint64_t address) override;
  uint32_t compileUnitCount() override;
  sym_lite::ICompileUnit* compileUnit(uint32_t index) override;
  const char* objectFilePath() override;
  uint32_t isBigEndian() override;
  void* symbolHandle() override { return this; }
  uint32_t functionCount() override;
  bool functionRange(uint32_t index, sym_lite::FunctionRange* out) override;

  // For the disassembler of the same kit (through symbolHandle).
  const std::vector<std::unique_ptr<ElfImage>>& images() const { return images_; }
  const ElfImage* imageAt(uint64_t address) const;

 private:
  class Unit;
  class Section;
  void rebuildUnits();

  const sym_lite::DebugEnvironment* environment_;
  std::vector<std::unique_ptr<ElfImage>> images_;
  std::vector<std::unique_ptr<Unit>> units_;
  std::vector<std::pair<const ElfImage*, const Function*>> functions_;
};

class ElfSymbolManager final : public sym_lite::ISymbolManager {
 public:
  ElfSymbolManager();
  ~ElfSymbolManager();

  uint32_t getVersion() override { return kVersion; }
  sym_lite::ISymbolPackage* createPackage(sym_lite::DebugEnvironment* environment) override;
  sym_lite::ISymbolPackage* openPackage(const char* path) override;
  void releasePackage(sym_lite::ISymbolPackage* package) override;

  // Why the last openPackage failed, as a sym_lite::kLoad* status.
  uint32_t lastStatus() const;
  // The module opens a target's symbols by the target's name: openPackage
  // of `name` then loads `path`.
  void addProgram(const std::string& name, const std::string& path);

 private:
  mutable std::mutex mutex_;  // guards packages_ and lastStatus_
  std::unordered_set<ElfSymbolPackage*> packages_;
  uint32_t lastStatus_ = 0;
  std::unordered_map<std::string, std::string> programs_;  // target name -> program; guarded
};

// Text for a load status, for messages to a user.
const char* loadStatusText(uint32_t status);

}  // namespace hostkit
