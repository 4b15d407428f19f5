// One connection to the trace module, driven as a debug host drives it:
// the module loaded with dlopen, the host's symbol and disassembly managers
// handed in, optionally the simulated debug environment with a scenario
// active, and lines sent one at a time. `ostrand shell` feeds it standard
// input; `ostrand demo` feeds it a script of its own.
//
// Every text the module sends out is handed to the printer callback on a
// printer thread of the session, so receive() never waits for the terminal.
// Host lines (":run CPU", ":wait TEXT", ...) go to the simulation and never
// reach the module.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "kit/CapstoneDisasmManager.hpp"
#include "kit/ElfSymbolManager.hpp"
#include "kit/QueueHostConnection.hpp"
#include "kit/ModuleLoader.hpp"
#include "ostrand/ShellSim.hpp"

namespace ostrand {

class ReplyLedger;

class HostSession {
 public:
  struct Options {
    std::string modulePath;  // libOstrand.so
    bool simulate = false;   // activate a scenario of the simulated debug environment
    std::string scenario;    // its file; "" for the default one beside the tool libraries
  };
  using Printer = std::function<void(const std::string& text)>;

  // The module path the shell uses when none is given: $OSTRAND_MODULE, or
  // the module built beside this program.
  static std::string defaultModulePath();

  explicit HostSession(Printer printer);
  ~HostSession();
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;

  // Loads the module (and the simulation) and opens the connection. An exit
  // code of ExitCodes.hpp, with a sentence that says what to do in `error`
  // when it is not kExitOk.
  int open(const Options& options, std::string& error);

  // One line of input, already stripped of its line end: a host line or one
  // JSON message. kExitOk when it was sent or done; kExitBadInput when it
  // could not be sent (a NUL byte, several messages on one line);
  // kExitFailure when a host line failed. `error` says why.
  int line(const std::string& text, std::string& error);

  // Waits up to `waitSeconds` for the replies still owed, halts running
  // CPUs, releases the connection and prints what arrived before release.
  // Returns the number of replies still owed. Safe to call twice.
  size_t close(double waitSeconds);

 private:
  Printer printer_;
  // Declared before the loader: they outlive the module that borrows them.
  ::hostkit::ElfSymbolManager symbols_;
  ::hostkit::CapstoneDisasmManager disassembly_;
  ShellSim sim_;
  hostkit::ModuleLoader loader_;
  hostkit::QueueHostConnection host_;
  JSONInterface::ExternalModule::ModuleConnection* connection_ = nullptr;
  std::unique_ptr<ReplyLedger> ledger_;
  std::atomic<bool> stopPrinter_{false};
  std::thread printerThread_;
};

}  // namespace ostrand
