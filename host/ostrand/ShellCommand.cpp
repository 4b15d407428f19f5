// `ostrand shell`: JSON commands in, replies and events out, one per line.
//
// The module is loaded with dlopen as a debug host loads it (HostSession).
// Every outgoing text goes to standard output on its own line as it
// arrives. At end of input the shell waits (bounded) for the replies still
// owed, releases the connection and unloads the module.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "ostrand/ArgReader.hpp"
#include "ostrand/ExitCodes.hpp"
#include "ostrand/HostSession.hpp"
#include "ostrand/Subcommands.hpp"

namespace ostrand {

namespace {

constexpr const char* kHelp =
    "usage: ostrand shell [--module PATH] [--wait SECONDS] [--sim [SCENARIO]]\n"
    "\n"
    "Loads the trace module, opens a connection and sends it one JSON message per\n"
    "line of standard input. Every reply and event is printed on its own line to\n"
    "standard output, as the module wrote it. Empty lines and lines starting with\n"
    "'#' are skipped.\n"
    "\n"
    "Messages:  {\"command\":\"listCommands\",\"id\":1}\n"
    "           {\"command\":\"cloudTrace.getTestString\",\"id\":2,\"data\":[\"hi\"]}\n"
    "           {\"cancel\":2}\n"
    "\n"
    "Options:\n"
    "  --module PATH    the module to load (default: the one built beside this\n"
    "                   program, or $OSTRAND_MODULE)\n"
    "  --wait SECONDS   at end of input, how long to wait for replies still owed\n"
    "                   (default 10)\n"
    "  --sim [SCENARIO] activate a scenario of the simulated debug environment\n"
    "                   (a JSON file; without one, the default scenario beside\n"
    "                   the tool libraries) and accept host lines\n"
    "  --help           this text\n"
    "\n"
    "Host lines (with --sim; never sent to the module):\n"
    "  :targets              the scenario's CPUs and their state, as JSON\n"
    "  :connect CPU          connect a CPU (adapter and target events)\n"
    "  :disconnect CPU       disconnect it\n"
    "  :run CPU [N]          run it until halted, or for N instructions\n"
    "  :halt CPU             halt it\n"
    "  :save CPU FILE        save its last run as a .tdf recording (waits up to\n"
    "                        5 s for a halt under way; fails if it never ran)\n"
    "  :wait TEXT [SECONDS]  wait until a printed line holds TEXT (default 10 s)\n"
    "  :sleep MS             pause reading input\n"
    "  :files DIR            the names in a directory (~/: the user directory)\n"
    "\n"
    "Exit codes: 0 all lines sent and answered; 2 bad options; 3 module not found\n"
    "or not loadable; 4 a line could not be sent (a NUL byte, or several JSON\n"
    "messages on one line; said on standard error); 1 replies still owed when the\n"
    "wait ran out, or a host line failed (a :wait that timed out, an unknown CPU).\n";

}  // namespace

int runShell(int argc, char** argv) {
  std::string modulePath = HostSession::defaultModulePath();
  double waitSeconds = 10;
  bool simulate = false;
  std::string scenario;
  ArgReader args("ostrand shell", argc, argv);
  std::string value;
  while (args.next()) {
    if (args.isHelp()) {
      std::fputs(kHelp, stdout);
      return kExitOk;
    }
    if (args.is("--sim")) {
      simulate = true;
      args.optionalValue(scenario);
      continue;
    }
    if (!args.is("--module") && !args.is("--wait")) return args.fail();
    if (!args.value(value)) return args.fail();
    if (args.is("--module")) {
      modulePath = value;
      continue;
    }
    try {
      waitSeconds = std::stod(value);
    } catch (const std::exception&) {
      return args.fail("--wait needs a number of seconds, not '" + value + "'");
    }
  }

  HostSession session([](const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
  });
  std::string error;
  if (int rc = session.open({modulePath, simulate, scenario}, error); rc != kExitOk) {
    std::fprintf(stderr, "ostrand shell: %s\n", error.c_str());
    return rc;
  }

  int exitCode = kExitOk;
  std::string line;
  size_t lineNumber = 0;
  while (std::getline(std::cin, line)) {
    ++lineNumber;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const int rc = session.line(line, error);
    if (rc == kExitOk) continue;
    std::fprintf(stderr, "ostrand shell: line %zu%s%s\n", lineNumber, rc == kExitBadInput ? " " : ": ",
                 error.c_str());
    // A line that could not be sent outweighs a host line that failed.
    if (rc == kExitBadInput || exitCode == kExitOk) exitCode = rc;
  }

  const size_t owed = session.close(waitSeconds);
  std::fflush(stdout);
  if (owed > 0) {
    std::fprintf(stderr, "ostrand shell: %zu repl%s still owed after %.1f s; giving up\n", owed,
                 owed == 1 ? "y" : "ies", waitSeconds);
    if (exitCode == kExitOk) exitCode = kExitFailure;
  }
  return exitCode;
}

}  // namespace ostrand
