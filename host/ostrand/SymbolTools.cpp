#include "ostrand/SymbolTools.hpp"

#include <algorithm>
#include <charconv>

#include "ostrand/ArgReader.hpp"
#include "source_utilities/HostApis.hpp"

namespace ostrand {

std::optional<uint64_t> parseAddress(std::string_view text) {
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text.remove_prefix(2);
    base = 16;
  }
  if (text.empty()) return std::nullopt;
  uint64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

SymbolArgs parseSymbolArgs(int argc, char** argv, const std::vector<std::string>& valued) {
  SymbolArgs args;
  ArgReader reader(argv[0], argc, argv);
  std::string text;
  while (reader.next()) {
    const std::string& arg = reader.arg();
    if (reader.isHelp()) {
      args.help = true;
      continue;
    }
    if (reader.is("--json")) {
      args.json = true;
      continue;
    }
    if (!reader.isOption()) {
      args.positional.push_back(arg);
      continue;
    }
    const bool known = reader.is("--elf") || reader.is("--processor-id") ||
                       std::find(valued.begin(), valued.end(), arg) != valued.end();
    if (!known || !reader.value(text)) {
      args.error = reader.error();
      return args;
    }
    if (reader.is("--elf")) {
      args.elf = text;
    } else if (reader.is("--processor-id")) {
      auto id = parseAddress(text);
      if (!id || *id > 0xFFFFFFFFu) {
        args.error = "--processor-id needs a 32-bit number, not '" + text + "'";
        return args;
      }
      args.processorId = uint32_t(*id);
    } else {
      args.options.emplace_back(arg, text);
    }
  }
  if (!args.help && args.elf.empty()) args.error = "--elf FILE is required";
  return args;
}

SymbolSession::SymbolSession() {
  QX_NLV::setSymbolManagerApi(static_cast<sym_lite::ISymbolManager*>(&symbols_));
  QX_NLV::setDisAsmManagerApi(static_cast<disasm_lite::IDisassemblyManager*>(&disassembly_));
}

SymbolSession::~SymbolSession() {
  // The module's objects release their package and disassembler through
  // the managers, so they go first.
  disasm_.reset();
  objectInfo_.reset();
  QX_NLV::setSymbolManagerApi(nullptr);
  QX_NLV::setDisAsmManagerApi(nullptr);
}

bool SymbolSession::open(const std::string& elf, uint32_t processorId, std::string& error) {
  try {
    objectInfo_ = ObjectFileInfo::create(elf);
  } catch (const std::exception& e) {
    const uint32_t status = symbols_.lastStatus();
    error = "cannot read '" + elf + "': " +
            (status ? hostkit::loadStatusText(status) : std::string(e.what()));
    return false;
  }
  try {
    disasm_ = std::make_unique<CloudDisasm>(objectInfo_, processorId);
  } catch (const std::exception&) {
    // Symbols still answer; disassembly says why it cannot when asked.
    disasm_.reset();
  }
  return true;
}

bool SymbolSession::findSymbol(const std::string& name, uint64_t& address) {
  const auto& package = objectInfo_->package();
  return package && package->findSymbol(name.c_str(), &address) != 0;
}

}  // namespace ostrand
