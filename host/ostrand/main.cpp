// `ostrand`: the command-line host of the trace module.
//
// Dispatches to one subcommand; every subcommand has --help.
#include <cstdio>
#include <cstring>
#include <string_view>

#include "ostrand/ExitCodes.hpp"
#include "ostrand/Subcommands.hpp"

namespace {

struct Subcommand {
  const char* name;
  const char* summary;
  int (*run)(int argc, char** argv);
};

// One row per subcommand, in the order --help lists them.
constexpr Subcommand kSubcommands[] = {
    {"shell", "send JSON commands to the module, one per line; print replies and events",
     ostrand::runShell},
    {"serve", "serve the captures of a data tree to a trace viewer (TSP over HTTP)",
     ostrand::runServe},
    {"demo", "write sample captures of every kind and serve them with the browser viewer",
     ostrand::runDemo},
    {"gen", "write sample capture directories (MTB, TDF, Wattline, placeholders) into a data tree",
     ostrand::runGen},
    {"lookup", "function, file, line and source of addresses or symbols in an ARM ELF file",
     ostrand::runLookup},
    {"disasm", "disassemble an address range of an ARM ELF file", ostrand::runDisasm},
};

void printUsage(FILE* out) {
  std::fprintf(out,
               "usage: ostrand <subcommand> [options]\n\n"
               "The command-line host of the Ostrand trace module.\n\nSubcommands:\n");
  for (const auto& sub : kSubcommands) std::fprintf(out, "  %-8s %s\n", sub.name, sub.summary);
  std::fprintf(out, "\nRun 'ostrand <subcommand> --help' for the options of one subcommand;\n"
                    "'ostrand --version' prints the version.\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    printUsage(stderr);
    return ostrand::kExitUsage;
  }
  std::string_view name = argv[1];
  if (name == "--version") {
    std::printf("ostrand %s\n", OSTRAND_VERSION);
    return ostrand::kExitOk;
  }
  if (name == "--help" || name == "-h" || name == "help") {
    printUsage(stdout);
    return ostrand::kExitOk;
  }
  for (const auto& sub : kSubcommands) {
    if (name == sub.name) return sub.run(argc - 1, argv + 1);
  }
  std::fprintf(stderr, "ostrand: unknown subcommand '%s'\n\n", argv[1]);
  printUsage(stderr);
  return ostrand::kExitUsage;
}
