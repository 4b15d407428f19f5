#include "ostrand/SymbolTools.hpp"

#include <charconv>

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
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= argc) {
        args.error = std::string(arg) + " needs a value";
        return false;
      }
      out = argv[++i];
      return true;
    };
    if (arg == "--help" || arg == "-h") {
      args.help = true;
    } else if (arg == "--json") {
      args.json = true;
    } else if (arg == "--elf") {
      if (!value(args.elf)) return args;
    } else if (arg == "--processor-id") {
      std::string text;
      if (!value(text)) return args;
      auto id = parseAddress(text);
      if (!id || *id > 0xFFFFFFFFu) {
        args.error = "--processor-id needs a 32-bit number, not '" + text + "'";
        return args;
      }
      args.processorId = uint32_t(*id);
    } else if (arg.size() > 2 && arg.substr(0, 2) == "--") {
      bool known = false;
      for (const auto& name : valued) known = known || arg == name;
      if (!known) {
        args.error = "unknown option '" + std::string(arg) + "'";
        return args;
      }
      std::string text;
      if (!value(text)) return args;
      args.options.emplace_back(std::string(arg), text);
    } else {
      args.positional.emplace_back(arg);
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
