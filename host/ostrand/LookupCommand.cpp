// `ostrand lookup`: function, file, line and source text of addresses or
// symbols in an ARM ELF file.
#include <cinttypes>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "ostrand/ExitCodes.hpp"
#include "ostrand/Subcommands.hpp"
#include "ostrand/SymbolTools.hpp"

namespace ostrand {

namespace {

constexpr const char* kLookupHelp =
    "usage: ostrand lookup --elf FILE [--json] ADDR|SYMBOL...\n\n"
    "Prints, per query, one line:\n"
    "  address<TAB>function<TAB>file<TAB>directory<TAB>line<TAB>source text\n"
    "with empty fields where nothing is known. ADDR is decimal or 0x-hex; anything\n"
    "else is looked up as a symbol name. Source text is read from the paths in the\n"
    "debug information; a relative one from the current directory, else from the\n"
    "ELF file's directory or the nearest directory above it that holds it.\n\n"
    "  --elf FILE          the ARM ELF file (with DWARF for file and line)\n"
    "  --json              one JSON object per query instead (addresses as numbers)\n"
    "  --processor-id N    processor id (default 0x75803800, an Arm core)\n\n"
    "Exit status: 0 all found, 1 some symbol unknown or some address in no\n"
    "function, 2 bad command line,\n"
    "4 the file cannot be read.\n";

std::string clean(std::string text) {
  // Tabs and line ends inside a field would break the columns.
  for (char& c : text)
    if (c == '\t' || c == '\n' || c == '\r') c = ' ';
  return text;
}

}  // namespace

int runLookup(int argc, char** argv) {
  SymbolArgs args = parseSymbolArgs(argc, argv, {});
  if (args.help) {
    std::fputs(kLookupHelp, stdout);
    return kExitOk;
  }
  if (args.error.empty() && args.positional.empty()) args.error = "no address or symbol given";
  if (!args.error.empty()) {
    std::fprintf(stderr, "ostrand lookup: %s\nRun 'ostrand lookup --help' for usage.\n",
                 args.error.c_str());
    return kExitUsage;
  }
  SymbolSession session;
  std::string error;
  if (!session.open(args.elf, args.processorId, error)) {
    std::fprintf(stderr, "ostrand lookup: %s\n", error.c_str());
    return kExitBadInput;
  }
  int status = kExitOk;
  for (const auto& query : args.positional) {
    std::optional<uint64_t> address = parseAddress(query);
    uint64_t symbolAddress = 0;
    if (!address && session.findSymbol(query, symbolAddress)) address = symbolAddress;
    std::string function, file, directory;
    uint32_t line = 0;
    const char* text = nullptr;
    bool hasFunction = false, hasLine = false;
    if (address) {
      hasFunction = session.objectInfo().lookupFunction(*address, function, file, directory);
      hasLine = session.objectInfo().lookupSourceLine(*address, &line, &text);
      if (!hasFunction) {
        std::fprintf(stderr, "ostrand lookup: no function holds 0x%08" PRIx64 "\n", *address);
        status = kExitFailure;
      }
    } else {
      std::fprintf(stderr, "ostrand lookup: unknown symbol '%s'\n", query.c_str());
      status = kExitFailure;
    }
    char addressText[24] = "";
    if (address) std::snprintf(addressText, sizeof addressText, "0x%08" PRIx64, *address);
    if (args.json) {
      nlohmann::json out = {{"query", query},
                            {"address", address ? nlohmann::json(*address) : nullptr},
                            {"function", hasFunction ? nlohmann::json(function) : nullptr},
                            {"file", hasFunction ? nlohmann::json(file) : nullptr},
                            {"directory", hasFunction ? nlohmann::json(directory) : nullptr},
                            {"line", hasLine ? nlohmann::json(line) : nullptr},
                            {"source", hasLine ? nlohmann::json(text) : nullptr}};
      std::printf("%s\n", out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    } else {
      std::printf("%s\t%s\t%s\t%s\t%s\t%s\n", addressText, clean(function).c_str(),
                  clean(file).c_str(), clean(directory).c_str(),
                  hasLine ? std::to_string(line).c_str() : "",
                  hasLine ? clean(text).c_str() : "");
    }
  }
  return status;
}

}  // namespace ostrand
