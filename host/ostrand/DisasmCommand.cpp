// `ostrand disasm`: the instructions of an address range of an ARM ELF file.
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <tuple>
#include <nlohmann/json.hpp>

#include "ostrand/ExitCodes.hpp"
#include "ostrand/Subcommands.hpp"
#include "ostrand/SymbolTools.hpp"

namespace ostrand {

namespace {

constexpr const char* kDisasmHelp =
    "usage: ostrand disasm --elf FILE --from A --to B [--json]\n\n"
    "Prints one line per instruction from A through the instruction at B:\n"
    "  address<TAB>size<TAB>text\n"
    "Text is \"ADDRESS OPCODE    mnemonic operands\"; literal pools show as .word.\n"
    "A size of 0 marks bytes that do not decode. A and B are decimal or 0x-hex,\n"
    "symbol names, or a symbol plus an offset (main+8, main+0x4).\n\n"
    "  --elf FILE          the ARM ELF file\n"
    "  --from A, --to B    the range, both ends included\n"
    "  --json              one JSON object per instruction instead\n"
    "  --processor-id N    processor id (default 0x75803800, an Arm core)\n\n"
    "Exit status: 0 done, 1 no disassembler for the file, 2 bad command line,\n"
    "4 the file cannot be read.\n";

}  // namespace

int runDisasm(int argc, char** argv) {
  SymbolArgs args = parseSymbolArgs(argc, argv, {"--from", "--to"});
  if (args.help) {
    std::fputs(kDisasmHelp, stdout);
    return kExitOk;
  }
  std::string fromText, toText;
  for (const auto& [name, value] : args.options) (name == "--from" ? fromText : toText) = value;
  if (args.error.empty() && (fromText.empty() || toText.empty()))
    args.error = "--from and --to are required";
  if (args.error.empty() && !args.positional.empty())
    args.error = "unexpected argument '" + args.positional.front() + "'";
  if (!args.error.empty()) {
    std::fprintf(stderr, "ostrand disasm: %s\nRun 'ostrand disasm --help' for usage.\n",
                 args.error.c_str());
    return kExitUsage;
  }
  SymbolSession session;
  std::string error;
  if (!session.open(args.elf, args.processorId, error)) {
    std::fprintf(stderr, "ostrand disasm: %s\n", error.c_str());
    return kExitBadInput;
  }
  // An address, a symbol, or a symbol plus an offset ("main+8", "main+0x4"),
  // the form the listing's labels take.
  auto resolve = [&](const std::string& text) {
    std::optional<uint64_t> address = parseAddress(text);
    if (address) return address;
    const size_t plus = text.rfind('+');
    const std::string name = plus == std::string::npos ? text : text.substr(0, plus);
    std::optional<uint64_t> offset = plus == std::string::npos ? 0 : parseAddress(text.substr(plus + 1));
    uint64_t symbol = 0;
    if (offset && session.findSymbol(name, symbol)) address = symbol + *offset;
    return address;
  };
  auto from = resolve(fromText);
  auto to = resolve(toText);
  for (const auto& [option, text, value] :
       {std::tuple{"--from", fromText, from}, std::tuple{"--to", toText, to}}) {
    if (value) continue;
    std::fprintf(stderr,
                 "ostrand disasm: %s '%s' is neither an address nor a known symbol (SYMBOL or "
                 "SYMBOL+OFFSET)\n",
                 option, text.c_str());
    return kExitUsage;
  }
  if (*from > *to) {
    std::fprintf(stderr, "ostrand disasm: --from lies above --to\n");
    return kExitUsage;
  }
  if (!session.disasm()) {
    std::fprintf(stderr,
                 "ostrand disasm: no disassembler for '%s' (is it Arm code, and is the "
                 "processor id of the Arm family?)\n",
                 args.elf.c_str());
    return kExitFailure;
  }
  if (isatty(STDERR_FILENO))
    std::fprintf(stderr, "disassembling 0x%" PRIx64 "..0x%" PRIx64 "\n", *from, *to);
  for (const auto& line : session.disasm()->Disassemble({*from}, {*to})) {
    if (args.json) {
      nlohmann::json out = {{"address", line.address}, {"size", line.size},
                            {"label", line.label}, {"text", line.text}};
      std::printf("%s\n", out.dump().c_str());
    } else {
      std::printf("0x%08" PRIx64 "\t%d\t%s\n", line.address, line.size, line.text.c_str());
    }
  }
  return kExitOk;
}

}  // namespace ostrand
