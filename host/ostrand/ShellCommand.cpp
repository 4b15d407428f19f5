// `ostrand shell`: JSON commands in, replies and events out, one per line.
//
// The module is loaded with dlopen as a debug host loads it. Every outgoing
// text goes to standard output on its own line as it arrives, from a printer
// thread, so receive() never waits for the terminal. At end of input the
// shell waits (bounded) for the replies still owed, releases the connection
// and unloads the module.
#include <json/json.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kit/CapstoneDisasmManager.hpp"
#include "kit/ElfSymbolManager.hpp"
#include "kit/QueueHostConnection.hpp"
#include "kit/ModuleLoader.hpp"
#include "ostrand/ArgReader.hpp"
#include "ostrand/ExitCodes.hpp"
#include "ostrand/ShellSim.hpp"
#include "ostrand/Subcommands.hpp"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace ostrand {

namespace {

// Tells the symbol manager the program of every CPU of a scenario, so that
// the module finds a target's symbols by its name as it does in a debug
// host. Program paths are relative to the scenario file.
void addScenarioPrograms(::hostkit::ElfSymbolManager& symbols, const std::string& scenarioFile) {
  std::ifstream in(scenarioFile);
  Json::Value root;
  if (!in || !Json::parseFromStream(Json::CharReaderBuilder(), in, &root, nullptr)) return;
  const std::filesystem::path base = std::filesystem::path(scenarioFile).parent_path();
  std::vector<const Json::Value*> pending{&root};
  while (!pending.empty()) {
    const Json::Value& node = *pending.back();
    pending.pop_back();
    if (node.isObject() && node["name"].isString() && node["program"].isString()) {
      std::filesystem::path program(node["program"].asString());
      if (program.is_relative()) program = base / program;
      symbols.addProgram(node["name"].asString(), program.lexically_normal().string());
    }
    if (node.isObject() || node.isArray()) {
      for (const Json::Value& child : node) pending.push_back(&child);
    }
  }
}

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
    "  :wait TEXT [SECONDS]  wait until a printed line holds TEXT (default 10 s)\n"
    "  :sleep MS             pause reading input\n"
    "\n"
    "Exit codes: 0 all lines sent and answered; 2 bad options; 3 module not found\n"
    "or not loadable; 4 a line could not be sent (a NUL byte, or several JSON\n"
    "messages on one line; said on standard error); 1 replies still owed when the\n"
    "wait ran out, or a host line failed (a :wait that timed out, an unknown CPU).\n";

// Whether `line` holds more JSON after its first value. The module reads one
// value per message and ignores the rest, so a second object on the same
// line would never be answered.
bool holdsSeveralTexts(const std::string& line) {
  Json::CharReaderBuilder lenient;
  Json::CharReaderBuilder strict = lenient;
  strict["failIfExtra"] = true;
  Json::Value ignored;
  std::string errors;
  const char* begin = line.data();
  const char* end = begin + line.size();
  try {
    const std::unique_ptr<Json::CharReader> first(lenient.newCharReader());
    if (!first->parse(begin, end, &ignored, &errors)) return false;  // not JSON: sent as it is
    const std::unique_ptr<Json::CharReader> whole(strict.newCharReader());
    return !whole->parse(begin, end, &ignored, &errors);
  } catch (const std::exception&) {
    return false;
  }
}

// Replies still owed, by id. A command expects one reply; a cancel of an id
// still owed removes that debt (a cancelled command never answers).
class ReplyLedger {
 public:
  void sent(const std::string& line) {
    Json::Value root;
    const bool parsed = parse(line, root);
    std::lock_guard<std::mutex> guard(mutex_);
    if (!parsed || !root.isObject()) {
      ++owed_["null"];  // the module answers an unparsable text with an error
      return;
    }
    if (root["command"].isNull() && !root["cancel"].isNull()) {
      auto it = owed_.find(key(root["cancel"]));
      if (it != owed_.end() && --it->second == 0) owed_.erase(it);
      return;
    }
    ++owed_[key(root["id"])];
  }

  void received(const std::string& text) {
    Json::Value root;
    if (!parse(text, root) || !root.isObject()) return;
    const char* key = root.isMember("response") ? "response" : root.isMember("error") ? "error" : nullptr;
    if (key == nullptr) return;  // an event
    std::lock_guard<std::mutex> guard(mutex_);
    // A reply carries the id as the module read it, which need not be the
    // text the client wrote (a missing id answers as 0); any reply pays one
    // debt, its own when it can be found.
    auto it = owed_.find(this->key(root[key]));
    if (it == owed_.end()) it = owed_.begin();
    if (it != owed_.end() && --it->second == 0) owed_.erase(it);
  }

  size_t owed() const {
    std::lock_guard<std::mutex> guard(mutex_);
    size_t total = 0;
    for (const auto& entry : owed_) total += entry.second;
    return total;
  }

 private:
  // Never throws: the reader raises exceptions for input nested deeper than
  // its limit, and the shell must survive any line.
  static bool parse(const std::string& text, Json::Value& root) {
    try {
      Json::Reader reader;
      return reader.parse(text, root);
    } catch (const std::exception&) {
      return false;
    }
  }

  // 7, 7.0 and "7" stay apart; an integer is the same key whatever its sign type.
  static std::string key(const Json::Value& id) {
    if (id.isUInt64()) return std::to_string(id.asUInt64());
    if (id.isInt64()) return std::to_string(id.asInt64());
    Json::FastWriter writer;
    return writer.write(id);
  }
  mutable std::mutex mutex_;
  std::map<std::string, size_t> owed_;  // guarded by mutex_
};

std::string defaultModulePath() {
  if (const char* env = std::getenv("OSTRAND_MODULE"); env != nullptr && *env != '\0') return env;
  return OSTRAND_DEFAULT_MODULE;
}

}  // namespace

int runShell(int argc, char** argv) {
  std::string modulePath = defaultModulePath();
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

  // The host's symbol and disassembly managers, as a debug host hands them
  // in: instruction captures decode with them. Declared before the loader,
  // they outlive the module.
  ::hostkit::ElfSymbolManager symbols;
  ::hostkit::CapstoneDisasmManager disassembly;
  ShellSim sim;
  if (simulate) {
    addScenarioPrograms(symbols, scenario.empty()
                                     ? ShellSim::toolDirOf(modulePath) + "/scenarios/default.json"
                                     : scenario);
    std::string error;
    if (!sim.open(ShellSim::toolDirOf(modulePath), scenario, error)) {
      std::fprintf(stderr, "ostrand shell: %s\n", error.c_str());
      return error.rfind("--sim:", 0) == 0 ? kExitBadInput : kExitNoModule;
    }
  }

  hostkit::ModuleLoader loader;
  if (!loader.load(modulePath)) {
    std::fprintf(stderr, "ostrand shell: %s\n  Build the project or pass --module PATH to libOstrand.so.\n",
                 loader.error().c_str());
    return kExitNoModule;
  }
  loader.initializeSymbolManager(static_cast<sym_lite::ISymbolManager*>(&symbols));
  loader.initializeDisAsmManager(static_cast<disasm_lite::IDisassemblyManager*>(&disassembly));
  uint32_t count = 0;
  const char* const* names = loader.listModules(&count);
  if (count == 0 || names == nullptr || names[0] == nullptr) {
    std::fprintf(stderr, "ostrand shell: %s offers no JSON interface module\n", modulePath.c_str());
    return kExitNoModule;
  }

  hostkit::QueueHostConnection host;
  auto* connection = loader.createModule(names[0], &host);
  if (connection == nullptr) {
    std::fprintf(stderr, "ostrand shell: the module refused a connection to '%s'\n", names[0]);
    return kExitNoModule;
  }

  ReplyLedger ledger;
  std::atomic<bool> stopPrinter{false};
  std::thread printer([&] {
    while (!stopPrinter.load()) {
      if (auto text = host.next(std::chrono::milliseconds(50))) {
        ledger.received(*text);
        std::fwrite(text->data(), 1, text->size(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
        sim.printed(*text);
      }
    }
  });

  int exitCode = kExitOk;
  std::string line;
  size_t lineNumber = 0;
  while (std::getline(std::cin, line)) {
    ++lineNumber;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    if (line.find('\0') != std::string::npos) {
      std::fprintf(stderr, "ostrand shell: line %zu holds a NUL byte and cannot be sent; skipped\n", lineNumber);
      exitCode = kExitBadInput;
      continue;
    }
    if (line[first] == ':') {
      std::string error;
      if (!sim.hostLine(line.substr(first), error)) {
        std::fprintf(stderr, "ostrand shell: line %zu: %s\n", lineNumber, error.c_str());
        if (exitCode == kExitOk) exitCode = kExitFailure;
      }
      continue;
    }
    if (holdsSeveralTexts(line)) {
      std::fprintf(stderr,
                   "ostrand shell: line %zu holds more than one JSON message; put each on a line "
                   "of its own. Skipped\n",
                   lineNumber);
      exitCode = kExitBadInput;
      continue;
    }
    ledger.sent(line);
    connection->send(line.c_str());
  }

  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(waitSeconds);
  while (ledger.owed() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  size_t owed = ledger.owed();
  sim.finish();
  connection->release();
  // Texts that arrived before release are still printed.
  while (auto text = host.next(std::chrono::milliseconds(0))) {
    std::fwrite(text->data(), 1, text->size(), stdout);
    std::fputc('\n', stdout);
  }
  stopPrinter.store(true);
  printer.join();
  std::fflush(stdout);
  if (owed > 0) {
    std::fprintf(stderr, "ostrand shell: %zu repl%s still owed after %.1f s; giving up\n", owed,
                 owed == 1 ? "y" : "ies", waitSeconds);
    if (exitCode == kExitOk) exitCode = kExitFailure;
  }
  return exitCode;
}

}  // namespace ostrand

#pragma GCC diagnostic pop
