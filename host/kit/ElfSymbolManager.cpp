#include "kit/ElfSymbolManager.hpp"

#include <algorithm>

namespace hostkit {

class ElfSymbolPackage::Section final : public sym_lite::IUnitSection {
 public:
  explicit Section(const ElfUnitSection& section) : section_(section) {}
  void info(sym_lite::SectionInfo* out) override {
    *out = {section_.name.c_str(), section_.data, section_.baseAddress,
            uint32_t(section_.lines.size()), uint32_t(section_.ranges.size())};
  }
  void ranges(sym_lite::AddressRange* out) override {
    std::copy(section_.ranges.begin(), section_.ranges.end(), out);
  }
  void lines(sym_lite::LineEntry* out) override {
    std::copy(section_.lines.begin(), section_.lines.end(), out);
  }

 private:
  const ElfUnitSection& section_;
};

class ElfSymbolPackage::Unit final : public sym_lite::ICompileUnit {
 public:
  explicit Unit(const ElfUnit& unit) : unit_(unit) {
    for (const auto& section : unit.sections) sections_.emplace_back(section);
  }
  sym_lite::IUnitSection* section(uint32_t index) override {
    return index < sections_.size() ? &sections_[index] : nullptr;
  }
  void info(sym_lite::UnitInfo* out) override {
    *out = {unit_.directory, unit_.name, uint32_t(sections_.size())};
  }

 private:
  const ElfUnit& unit_;
  std::vector<Section> sections_;
};

ElfSymbolPackage::ElfSymbolPackage(const sym_lite::DebugEnvironment* environment)
    : environment_(environment) {}

ElfSymbolPackage::~ElfSymbolPackage() = default;

uint32_t ElfSymbolPackage::load(const std::string& path) {
  auto image = std::make_unique<ElfImage>();
  if (uint32_t status = image->load(path)) return status;
  images_.push_back(std::move(image));
  rebuildUnits();
  return 0;
}

void ElfSymbolPackage::loadFile(const char* path, sym_lite::LoadListener* listener) {
  const uint32_t status = path ? load(path) : sym_lite::kLoadNotFound;
  if (!listener) return;
  if (status == 0)
    listener->onLoaded();
  else
    listener->onLoadFailed(status);
}

void ElfSymbolPackage::rebuildUnits() {
  units_.clear();
  functions_.clear();
  for (const auto& image : images_) {
    for (const auto& unit : image->units()) units_.push_back(std::make_unique<Unit>(unit));
    for (const auto& function : image->functions()) functions_.emplace_back(image.get(), &function);
  }
  std::stable_sort(functions_.begin(), functions_.end(), [](const auto& a, const auto& b) {
    return a.second->scope.start < b.second->scope.start;
  });
}

const ElfImage* ElfSymbolPackage::imageAt(uint64_t address) const {
  for (const auto& image : images_)
    if (image->sectionAt(address)) return image.get();
  return nullptr;
}

int ElfSymbolPackage::findSymbol(const char* name, uint64_t* address) {
  if (!name) return 0;
  for (const auto& image : images_) {
    if (auto found = image->findSymbol(name)) {
      if (address) *address = *found;
      return 1;
    }
  }
  return 0;
}

void ElfSymbolPackage::findFunction(sym_lite::FunctionInfo* out, uint64_t address,
                                    uint32_t /*flags*/) {
  *out = {nullptr, nullptr, nullptr};
  for (const auto& image : images_) {
    const Scope* scope = image->findScope(address);
    if (!scope) continue;
    out->function = scope->name;
    out->file = scope->file;
    out->directory = scope->directory;
    // A function without a declaring file (from the symbol table) takes the
    // file of its line; with neither, both are empty, never null.
    const char* lineFile = nullptr;
    uint32_t line = 0;
    if (!out->file) image->findLine(address, &lineFile, &line, &out->directory, &out->file);
    if (!out->file) out->file = "";
    if (!out->directory) out->directory = "";
    return;
  }
}

void ElfSymbolPackage::findSourceLine(sym_lite::SourceLineInfo* out, uint64_t address) {
  *out = {nullptr, 0};
  for (const auto& image : images_) {
    const char* file = nullptr;
    uint32_t line = 0;
    if (image->findLine(address, &file, &line)) {
      *out = {file, line};
      return;
    }
  }
}

uint32_t ElfSymbolPackage::compileUnitCount() { return uint32_t(units_.size()); }

sym_lite::ICompileUnit* ElfSymbolPackage::compileUnit(uint32_t index) {
  return index < units_.size() ? units_[index].get() : nullptr;
}

const char* ElfSymbolPackage::objectFilePath() {
  return images_.empty() ? "" : images_.front()->path().c_str();
}

uint32_t ElfSymbolPackage::isBigEndian() {
  return !images_.empty() && images_.front()->bigEndian() ? 1 : 0;
}

uint32_t ElfSymbolPackage::functionCount() { return uint32_t(functions_.size()); }

bool ElfSymbolPackage::functionRange(uint32_t index, sym_lite::FunctionRange* out) {
  if (index >= functions_.size()) return false;
  const Scope& scope = functions_[index].second->scope;
  *out = {scope.name, scope.start, scope.end};
  return true;
}

ElfSymbolManager::ElfSymbolManager() = default;

ElfSymbolManager::~ElfSymbolManager() {
  for (auto* package : packages_) delete package;
}

sym_lite::ISymbolPackage* ElfSymbolManager::createPackage(sym_lite::DebugEnvironment* environment) {
  auto* package = new ElfSymbolPackage(environment);
  std::lock_guard lock(mutex_);
  packages_.insert(package);
  return package;
}

void ElfSymbolManager::addProgram(const std::string& name, const std::string& path) {
  std::lock_guard lock(mutex_);
  programs_[name] = path;
}

sym_lite::ISymbolPackage* ElfSymbolManager::openPackage(const char* path) {
  std::string file = path ? path : "";
  {
    std::lock_guard lock(mutex_);
    auto found = programs_.find(file);
    if (found != programs_.end()) file = found->second;
  }
  auto package = std::make_unique<ElfSymbolPackage>();
  const uint32_t status = path ? package->load(file) : sym_lite::kLoadNotFound;
  std::lock_guard lock(mutex_);
  lastStatus_ = status;
  if (status != 0) return nullptr;
  packages_.insert(package.get());
  return package.release();
}

void ElfSymbolManager::releasePackage(sym_lite::ISymbolPackage* package) {
  auto* own = static_cast<ElfSymbolPackage*>(package);
  {
    std::lock_guard lock(mutex_);
    if (packages_.erase(own) == 0) return;  // not one of ours: leave it alone
  }
  delete own;
}

uint32_t ElfSymbolManager::lastStatus() const {
  std::lock_guard lock(mutex_);
  return lastStatus_;
}

const char* loadStatusText(uint32_t status) {
  switch (status) {
    case 0: return "loaded";
    case sym_lite::kLoadNotFound: return "the file cannot be opened";
    case sym_lite::kLoadNotElf: return "not an ELF file";
    case sym_lite::kLoadUnsupported: return "an ELF file for another machine than Arm";
    case sym_lite::kLoadBadDebugInfo: return "its debug information cannot be read";
    default: return "unknown load failure";
  }
}

}  // namespace hostkit
