#include "kit/ElfImage.hpp"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>

namespace hostkit {

namespace {

constexpr uint32_t kArmAttributesType = 0x70000003;  // SHT_ARM_ATTRIBUTES
constexpr unsigned kTagCpuArchProfile = 7;

uint64_t readUleb(const uint8_t*& p, const uint8_t* end) {
  uint64_t value = 0;
  for (unsigned shift = 0; p < end && shift < 64; shift += 7) {
    uint8_t byte = *p++;
    value |= uint64_t{byte & 0x7Fu} << shift;
    if (!(byte & 0x80)) break;
  }
  return value;
}

void skipString(const uint8_t*& p, const uint8_t* end) {
  while (p < end && *p) ++p;
  if (p < end) ++p;
}

std::vector<sym_lite::AddressRange> dieRanges(Dwarf_Die* die) {
  std::vector<sym_lite::AddressRange> ranges;
  Dwarf_Addr base = 0, start = 0, end = 0;
  ptrdiff_t offset = 0;
  while ((offset = dwarf_ranges(die, offset, &base, &start, &end)) > 0) {
    if (end > start) ranges.push_back({start, end});
  }
  return ranges;
}

const char* integratedName(Dwarf_Die* die) {
  Dwarf_Attribute attribute;
  if (!dwarf_attr_integrate(die, DW_AT_name, &attribute)) return nullptr;
  return dwarf_formstring(&attribute);
}

}  // namespace

struct ElfImage::ElfHandle {
  Elf* elf = nullptr;
  Dwarf* dwarf = nullptr;
  ~ElfHandle() {
    if (dwarf) dwarf_end(dwarf);
    if (elf) elf_end(elf);
  }
};

ElfImage::ElfImage() : elf_(std::make_unique<ElfHandle>()) {}

ElfImage::~ElfImage() {
  elf_.reset();
  if (fd_ >= 0) ::close(fd_);
}

const char* ElfImage::intern(std::string_view text) {
  auto found = interned_.find(text);
  if (found != interned_.end()) return found->second;
  const std::string& stored = strings_.emplace_back(text);
  interned_.emplace(stored, stored.c_str());
  return stored.c_str();
}

uint32_t ElfImage::load(const std::string& path) {
  path_ = path;
  elf_version(EV_CURRENT);
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) return sym_lite::kLoadNotFound;
  elf_->elf = elf_begin(fd_, ELF_C_READ_MMAP, nullptr);
  if (!elf_->elf || elf_kind(elf_->elf) != ELF_K_ELF) return sym_lite::kLoadNotElf;
  GElf_Ehdr header;
  if (!gelf_getehdr(elf_->elf, &header)) return sym_lite::kLoadNotElf;
  if (header.e_machine != EM_ARM) return sym_lite::kLoadUnsupported;
  bigEndian_ = header.e_ident[EI_DATA] == ELFDATA2MSB;
  if (!readSections()) return sym_lite::kLoadNotElf;
  readSymbols();
  readAttributes();
  if (!readDebugInfo()) return sym_lite::kLoadBadDebugInfo;
  addSymbolFunctions();
  return 0;
}

bool ElfImage::readSections() {
  size_t namesIndex = 0;
  if (elf_getshdrstrndx(elf_->elf, &namesIndex) != 0) return false;
  for (Elf_Scn* scn = elf_nextscn(elf_->elf, nullptr); scn; scn = elf_nextscn(elf_->elf, scn)) {
    GElf_Shdr sh;
    if (!gelf_getshdr(scn, &sh)) return false;
    if (!(sh.sh_flags & SHF_ALLOC) || sh.sh_size == 0) continue;
    ElfSection& section = sections_.emplace_back();
    const char* name = elf_strptr(elf_->elf, namesIndex, sh.sh_name);
    section.name = name ? name : "";
    section.address = sh.sh_addr;
    section.size = sh.sh_size;
    section.executable = (sh.sh_flags & SHF_EXECINSTR) != 0;
    section.elfIndex = elf_ndxscn(scn);
    if (sh.sh_type != SHT_NOBITS) {
      Elf_Data* data = elf_getdata(scn, nullptr);
      if (data && data->d_buf && data->d_size >= sh.sh_size)
        section.bytes = static_cast<const uint8_t*>(data->d_buf);
    }
  }
  std::sort(sections_.begin(), sections_.end(),
            [](const ElfSection& a, const ElfSection& b) { return a.address < b.address; });
  return true;
}

void ElfImage::readSymbols() {
  for (Elf_Scn* scn = elf_nextscn(elf_->elf, nullptr); scn; scn = elf_nextscn(elf_->elf, scn)) {
    GElf_Shdr sh;
    if (!gelf_getshdr(scn, &sh) || sh.sh_type != SHT_SYMTAB || sh.sh_entsize == 0) continue;
    Elf_Data* data = elf_getdata(scn, nullptr);
    if (!data) continue;
    size_t count = sh.sh_size / sh.sh_entsize;
    for (size_t i = 1; i < count; ++i) {
      GElf_Sym sym;
      if (!gelf_getsym(data, static_cast<int>(i), &sym)) continue;
      const char* name = elf_strptr(elf_->elf, sh.sh_link, sym.st_name);
      if (!name || !*name || sym.st_shndx == SHN_UNDEF) continue;
      const int type = GELF_ST_TYPE(sym.st_info);
      // Mapping symbols: "$a", "$t", "$d", optionally with ".suffix". They
      // count only in the section they stand in.
      if (name[0] == '$' && std::strchr("atd", name[1]) && (name[2] == 0 || name[2] == '.')) {
        for (auto& section : sections_)
          if (section.elfIndex == sym.st_shndx) section.mapping.emplace_back(sym.st_value, name[1]);
        continue;
      }
      if (type == STT_SECTION || type == STT_FILE) continue;
      // Thumb functions carry bit 0; the function itself starts at the even
      // address.
      const bool thumb = type == STT_FUNC && (sym.st_value & 1);
      const uint64_t address = type == STT_FUNC ? sym.st_value & ~uint64_t{1} : sym.st_value;
      auto [it, added] = symbols_.emplace(name, address);
      if (!added && GELF_ST_BIND(sym.st_info) == STB_GLOBAL) it->second = address;
      if (type == STT_FUNC && sym.st_size > 0 && inExecutable(address))
        symbolFunctions_.push_back({address, address + sym.st_size, intern(name), thumb});
    }
  }
  for (auto& section : sections_) std::sort(section.mapping.begin(), section.mapping.end());
}

void ElfImage::readAttributes() {
  for (Elf_Scn* scn = elf_nextscn(elf_->elf, nullptr); scn; scn = elf_nextscn(elf_->elf, scn)) {
    GElf_Shdr sh;
    if (!gelf_getshdr(scn, &sh) || sh.sh_type != kArmAttributesType) continue;
    Elf_Data* data = elf_rawdata(scn, nullptr);
    if (!data || data->d_size < 1) continue;
    const auto* p = static_cast<const uint8_t*>(data->d_buf);
    const uint8_t* end = p + data->d_size;
    if (*p++ != 'A') continue;
    auto read32 = [this](const uint8_t* q) {
      return bigEndian_ ? uint32_t(q[0]) << 24 | uint32_t(q[1]) << 16 | uint32_t(q[2]) << 8 | q[3]
                        : uint32_t(q[3]) << 24 | uint32_t(q[2]) << 16 | uint32_t(q[1]) << 8 | q[0];
    };
    while (end - p >= 4) {
      const uint32_t length = read32(p);
      if (length < 4 || length > uint64_t(end - p)) break;
      const uint8_t* subEnd = p + length;
      const uint8_t* q = p + 4;
      const bool aeabi = std::strncmp(reinterpret_cast<const char*>(q), "aeabi", 6) == 0;
      skipString(q, subEnd);
      // Only the file-wide attributes of the "aeabi" vendor say the profile.
      if (aeabi && subEnd - q >= 5 && *q == 1) {
        const uint8_t* attrEnd = std::min(subEnd, q + read32(q + 1));
        q += 5;
        while (q < attrEnd) {
          const uint64_t tag = readUleb(q, attrEnd);
          if (tag == 4 || tag == 5 || (tag > 32 && (tag & 1))) {
            skipString(q, attrEnd);
          } else if (tag == 32) {
            readUleb(q, attrEnd);
            skipString(q, attrEnd);
          } else {
            const uint64_t value = readUleb(q, attrEnd);
            if (tag == kTagCpuArchProfile) profile_ = static_cast<char>(value);
          }
        }
      }
      p = subEnd;
    }
  }
}

bool ElfImage::inExecutable(uint64_t address) const {
  const ElfSection* section = sectionAt(address);
  return section && section->executable;
}

namespace {

// A relative path of the debug information is relative to its unit's
// compilation directory, itself perhaps relative (to where the build ran).
std::filesystem::path inUnit(const ElfUnit& unit, const char* path) {
  std::filesystem::path full = path ? path : "";
  if (full.is_relative() && unit.directory && *unit.directory)
    full = std::filesystem::path(unit.directory) / full;
  return full;
}

struct UnitBuilder {
  std::map<uint64_t, ElfUnitSection> byAddress;  // keyed by section address
};

}  // namespace

bool ElfImage::readDebugInfo() {
  elf_->dwarf = dwarf_begin_elf(elf_->elf, DWARF_C_READ, nullptr);
  if (!elf_->dwarf) return true;  // no debug information: symbols only
  std::vector<Scope> inlined;
  Dwarf_CU* cu = nullptr;
  Dwarf_Die cudie, subdie;
  uint8_t unitType = 0;
  Dwarf_Half version = 0;
  int status = 0;
  while ((status = dwarf_get_units(elf_->dwarf, cu, &cu, &version, &unitType, &cudie, &subdie)) ==
         0) {
    if (dwarf_tag(&cudie) != DW_TAG_compile_unit) continue;
    ElfUnit& unit = units_.emplace_back();
    if (const char* name = dwarf_diename(&cudie)) unit.name = intern(name);
    Dwarf_Attribute attribute;
    if (const char* dir = dwarf_formstring(dwarf_attr(&cudie, DW_AT_comp_dir, &attribute)))
      unit.directory = intern(dir);
    UnitBuilder builder;
    auto unitSection = [&](uint64_t address) -> ElfUnitSection* {
      const ElfSection* section = sectionAt(address);
      if (!section || !section->executable) return nullptr;
      ElfUnitSection& out = builder.byAddress[section->address];
      out.name = section->name;
      out.baseAddress = section->address;
      out.data = reinterpret_cast<uint64_t>(section->bytes);
      return &out;
    };
    for (const auto& range : dieRanges(&cudie))
      if (ElfUnitSection* section = unitSection(range.start)) section->ranges.push_back(range);

    Dwarf_Lines* lines = nullptr;
    size_t lineCount = 0;
    if (dwarf_getsrclines(&cudie, &lines, &lineCount) == 0) {
      // A sequence runs to its end-sequence row. Sequences of code that the
      // linker dropped start outside every executable section; they are
      // skipped whole. Of rows that share one address only the last spans
      // any bytes, which is the row that counts.
      size_t first = 0;
      for (size_t i = 0; i < lineCount; ++i) {
        Dwarf_Line* row = dwarf_onesrcline(lines, i);
        bool endSequence = false;
        dwarf_lineendsequence(row, &endSequence);
        if (!endSequence) continue;
        Dwarf_Addr start = 0;
        dwarf_lineaddr(dwarf_onesrcline(lines, first), &start);
        ElfUnitSection* section = unitSection(start);
        for (size_t r = first; section && r <= i; ++r) {
          Dwarf_Line* current = dwarf_onesrcline(lines, r);
          Dwarf_Addr address = 0, next = 0;
          int line = 0, column = 0;
          bool statement = false, end = false;
          dwarf_lineaddr(current, &address);
          dwarf_lineno(current, &line);
          dwarf_linecol(current, &column);
          dwarf_linebeginstatement(current, &statement);
          dwarf_lineendsequence(current, &end);
          const char* src = dwarf_linesrc(current, nullptr, nullptr);
          std::filesystem::path full = inUnit(unit, src);
          const char* file = intern(full.string());
          const char* directory = intern(full.parent_path().string());
          const char* name = intern(full.filename().string());
          section->lines.push_back({directory, name, uint32_t(line),
                                    uint32_t(column), address,
                                    (statement ? sym_lite::kLineIsStatement : 0u) |
                                        (end ? sym_lite::kLineEndSequence : 0u),
                                    0});
          if (r < i) {
            dwarf_lineaddr(dwarf_onesrcline(lines, r + 1), &next);
            if (next > address) lines_.push_back({address, next, file, directory, name, uint32_t(line)});
          }
        }
        first = i + 1;
      }
    }
    for (auto& [address, section] : builder.byAddress) unit.sections.push_back(std::move(section));
    unit_ = &unit;
    walkScopes(&cudie, 0, inlined);
  }
  if (status < 0) return false;

  std::sort(lines_.begin(), lines_.end(),
            [](const LineSpan& a, const LineSpan& b) { return a.start < b.start; });
  std::vector<LineSpan> kept;
  for (const auto& span : lines_)
    if (kept.empty() || span.start >= kept.back().end) kept.push_back(span);
  lines_ = std::move(kept);

  std::sort(functions_.begin(), functions_.end(), [](const Function& a, const Function& b) {
    return a.scope.start < b.scope.start;
  });
  for (const auto& scope : inlined) {
    if (Function* function = const_cast<Function*>(findFunction(scope.start)))
      function->inlined.push_back(scope);
  }
  return true;
}

void ElfImage::walkScopes(void* dieHandle, uint32_t depth, std::vector<Scope>& inlined) {
  auto* parent = static_cast<Dwarf_Die*>(dieHandle);
  Dwarf_Die child;
  if (dwarf_child(parent, &child) != 0) return;
  do {
    const int tag = dwarf_tag(&child);
    if (tag == DW_TAG_subprogram || tag == DW_TAG_inlined_subroutine) {
      const char* name = integratedName(&child);
      const char* declared = dwarf_decl_file(&child);
      std::filesystem::path file = inUnit(*unit_, declared);
      Scope scope;
      scope.name = name ? intern(name) : nullptr;
      if (declared) {
        scope.file = intern(file.filename().string());
        scope.directory = intern(file.parent_path().string());
      }
      const uint32_t inner = tag == DW_TAG_subprogram ? 0 : depth + 1;
      scope.depth = inner;
      for (const auto& range : dieRanges(&child)) {
        if (!inExecutable(range.start) || !scope.name) continue;
        scope.start = range.start;
        scope.end = range.end;
        if (tag == DW_TAG_subprogram)
          functions_.push_back({scope, {}, false});
        else
          inlined.push_back(scope);
      }
      walkScopes(&child, inner, inlined);
    } else if (dwarf_haschildren(&child)) {
      walkScopes(&child, depth, inlined);
    }
  } while (dwarf_siblingof(&child, &child) == 0);
}

// Functions the debug information does not describe (hand-written assembly,
// libraries built without it) come from the symbol table; the symbol table
// also says which functions are Thumb code.
void ElfImage::addSymbolFunctions() {
  std::sort(symbolFunctions_.begin(), symbolFunctions_.end(),
            [](const SymbolFunction& a, const SymbolFunction& b) {
              return a.start != b.start ? a.start < b.start : std::strcmp(a.name, b.name) < 0;
            });
  std::vector<Function> added;
  for (const auto& symbol : symbolFunctions_) {
    if (Function* known = const_cast<Function*>(findFunction(symbol.start))) {
      if (known->scope.start == symbol.start) known->thumb = symbol.thumb;
      continue;
    }
    if (!added.empty() && added.back().scope.start == symbol.start) continue;
    Function function;
    function.scope = {symbol.start, symbol.end, symbol.name, nullptr, nullptr, 0};
    function.thumb = symbol.thumb;
    added.push_back(std::move(function));
  }
  functions_.insert(functions_.end(), std::make_move_iterator(added.begin()),
                    std::make_move_iterator(added.end()));
  std::sort(functions_.begin(), functions_.end(), [](const Function& a, const Function& b) {
    return a.scope.start < b.scope.start;
  });
  // Ranges must not overlap for the binary search: the first one wins.
  std::vector<Function> kept;
  for (auto& function : functions_)
    if (kept.empty() || function.scope.start >= kept.back().scope.end)
      kept.push_back(std::move(function));
  functions_ = std::move(kept);
}

std::optional<uint64_t> ElfImage::findSymbol(std::string_view name) const {
  auto found = symbols_.find(std::string(name));
  if (found == symbols_.end()) return std::nullopt;
  return found->second;
}

const Function* ElfImage::findFunction(uint64_t address) const {
  auto it = std::upper_bound(
      functions_.begin(), functions_.end(), address,
      [](uint64_t value, const Function& function) { return value < function.scope.start; });
  if (it == functions_.begin()) return nullptr;
  --it;
  return address < it->scope.end ? &*it : nullptr;
}

const Scope* ElfImage::findScope(uint64_t address) const {
  const Function* function = findFunction(address);
  if (!function) return nullptr;
  const Scope* best = &function->scope;
  for (const auto& scope : function->inlined)
    if (scope.start <= address && address < scope.end && scope.depth >= best->depth) best = &scope;
  return best;
}

bool ElfImage::findLine(uint64_t address, const char** file, uint32_t* line,
                        const char** directory, const char** name) const {
  auto it = std::upper_bound(lines_.begin(), lines_.end(), address,
                             [](uint64_t value, const LineSpan& span) { return value < span.start; });
  if (it == lines_.begin()) return false;
  --it;
  if (address >= it->end) return false;
  *file = it->file;
  *line = it->line;
  if (directory) *directory = it->directory;
  if (name) *name = it->name;
  return true;
}

const ElfSection* ElfImage::sectionAt(uint64_t address) const {
  auto it = std::upper_bound(
      sections_.begin(), sections_.end(), address,
      [](uint64_t value, const ElfSection& section) { return value < section.address; });
  if (it == sections_.begin()) return nullptr;
  --it;
  return address - it->address < it->size ? &*it : nullptr;
}

std::vector<uint64_t> ElfImage::sectionStarts() const {
  std::vector<uint64_t> starts;
  for (const auto& section : sections_)
    if (section.bytes) starts.push_back(section.address);
  return starts;
}

char ElfImage::mappingAt(const ElfSection& section, uint64_t address) const {
  auto it = std::upper_bound(section.mapping.begin(), section.mapping.end(),
                             std::pair<uint64_t, char>{address, '\x7f'});
  if (it == section.mapping.begin()) return 0;
  return std::prev(it)->second;
}

}  // namespace hostkit
