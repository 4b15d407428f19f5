#include "ProgramImage.hpp"

#include <iterator>

#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <stdexcept>

namespace OstrandSim {

namespace {

struct ElfCloser {
  void operator()(Elf* e) const { elf_end(e); }
};

[[noreturn]] void fail(const std::string& path, const std::string& why) {
  throw std::runtime_error("Cannot load program " + path + ": " + why);
}

}  // namespace

ProgramImage::ProgramImage(const std::string& elfPath) : path_(elfPath) {
  if (elf_version(EV_CURRENT) == EV_NONE) fail(elfPath, "libelf unusable");
  const int fd = ::open(elfPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail(elfPath, std::strerror(errno));
  std::unique_ptr<Elf, ElfCloser> elf(elf_begin(fd, ELF_C_READ, nullptr));
  struct FdCloser {
    int fd;
    ~FdCloser() { ::close(fd); }
  } closer{fd};
  GElf_Ehdr header;
  if (!elf || elf_kind(elf.get()) != ELF_K_ELF || gelf_getehdr(elf.get(), &header) == nullptr) {
    fail(elfPath, "not an ELF file");
  }
  if (header.e_ident[EI_CLASS] != ELFCLASS32 || header.e_ident[EI_DATA] != ELFDATA2LSB ||
      header.e_machine != EM_ARM) {
    fail(elfPath, "not a 32-bit little-endian ARM program");
  }
  entry_ = static_cast<uint32_t>(header.e_entry) & ~1u;

  size_t count = 0;
  if (elf_getphdrnum(elf.get(), &count) != 0) fail(elfPath, "no program headers");
  for (size_t i = 0; i < count; ++i) {
    GElf_Phdr ph;
    if (gelf_getphdr(elf.get(), static_cast<int>(i), &ph) == nullptr) continue;
    if (ph.p_type != PT_LOAD || ph.p_filesz == 0) continue;
    Segment s;
    // The load address: where the bytes lie when the core starts (.data
    // images in flash, code where it runs).
    s.address = static_cast<uint32_t>(ph.p_paddr);
    s.executable = (ph.p_flags & PF_X) != 0;
    s.bytes.resize(ph.p_filesz);
    if (::pread(fd, s.bytes.data(), ph.p_filesz, static_cast<off_t>(ph.p_offset)) !=
        static_cast<ssize_t>(ph.p_filesz)) {
      fail(elfPath, "truncated segment");
    }
    if (s.executable) {
      codeStart_ = std::min(codeStart_, s.address);
      codeEnd_ = std::max(codeEnd_, s.address + static_cast<uint32_t>(s.bytes.size()));
    }
    segments_.push_back(std::move(s));
  }
  if (segments_.empty()) fail(elfPath, "no loadable segment");

  Elf_Scn* scn = nullptr;
  while ((scn = elf_nextscn(elf.get(), scn)) != nullptr) {
    GElf_Shdr sh;
    if (gelf_getshdr(scn, &sh) == nullptr || sh.sh_type != SHT_SYMTAB) continue;
    Elf_Data* data = elf_getdata(scn, nullptr);
    const size_t n = sh.sh_entsize ? sh.sh_size / sh.sh_entsize : 0;
    for (size_t i = 0; data != nullptr && i < n; ++i) {
      GElf_Sym sym;
      if (gelf_getsym(data, static_cast<int>(i), &sym) == nullptr) continue;
      const char* name = elf_strptr(elf.get(), sh.sh_link, sym.st_name);
      if (name == nullptr || *name == '\0' || name[0] == '$') continue;
      uint32_t value = static_cast<uint32_t>(sym.st_value);
      if (GELF_ST_TYPE(sym.st_info) == STT_FUNC) {
        value &= ~1u;
        functions_.emplace(value, name);
      }
      symbols_.emplace(name, value);
    }
  }
}

const ProgramImage::Segment* ProgramImage::segmentOf(uint32_t address, uint32_t size) const {
  for (const Segment& s : segments_) {
    if (address >= s.address && uint64_t{address} + size <= uint64_t{s.address} + s.bytes.size()) {
      return &s;
    }
  }
  return nullptr;
}

bool ProgramImage::read(uint32_t address, void* out, uint32_t size) const {
  const Segment* s = segmentOf(address, size);
  if (s == nullptr) return false;
  std::memcpy(out, s->bytes.data() + (address - s->address), size);
  return true;
}

uint32_t ProgramImage::opcodeAt(uint32_t address, uint8_t& size) const {
  uint8_t b[4];
  size = 0;
  if (!read(address, b, 2)) return 0;
  const uint16_t first = static_cast<uint16_t>(b[0] | b[1] << 8);
  if (!isWideThumb(first)) {
    size = 2;
    return first;
  }
  if (!read(address + 2, b + 2, 2)) return 0;
  size = 4;
  return uint32_t{first} << 16 | static_cast<uint16_t>(b[2] | b[3] << 8);
}

bool ProgramImage::isCode(uint32_t address) const {
  const Segment* s = segmentOf(address, 2);
  return s != nullptr && s->executable;
}

std::string ProgramImage::functionAt(uint32_t address) const {
  if (!isCode(address)) return "";
  auto it = functions_.upper_bound(address);
  return it == functions_.begin() ? "" : std::prev(it)->second;
}

std::optional<uint32_t> ProgramImage::symbol(const std::string& name) const {
  auto it = symbols_.find(name);
  if (it == symbols_.end()) return std::nullopt;
  return it->second;
}

}  // namespace OstrandSim
