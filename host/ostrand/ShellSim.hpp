// The simulated debug environment as `ostrand shell` drives it: `--sim`
// activates a scenario through the simulation's control entry point, and
// the host lines (":targets", ":connect CPU", ":disconnect CPU",
// ":run CPU [N]", ":halt CPU", ":wait TEXT [SECONDS]", ":sleep MS") play
// the part of a debugger. Host lines never reach the module.
//
// Threads: printed() comes from the shell's printer thread, everything else
// from its input thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace ostrand {

class ShellSim {
 public:
  // The tool libraries of the module at `modulePath`: <base>/lib/x.so ->
  // <base>/emulation/analysis/bin/.
  static std::string toolDirOf(const std::string& modulePath);

  // Loads the control entry point and activates `scenario` ("" for the
  // default one). False with a sentence that says what to do.
  bool open(const std::string& toolDir, const std::string& scenario, std::string& error);

  // Every outgoing line the shell has printed.
  void printed(const std::string& text);

  // A line that starts with ':'. Returns false, with a sentence in `error`,
  // when the line failed (the shell goes on and exits with 1).
  bool hostLine(const std::string& line, std::string& error);

  // Halts every running CPU and waits for it, so no run outlives the
  // connection.
  void finish();

 private:
  bool ready(std::string& error) const;
  bool call(int32_t result, const std::string& what, std::string& error) const;
  std::vector<std::string> runningCpus() const;

  void* library_ = nullptr;
  std::mutex mutex_;  // guards printed_
  std::condition_variable printedChanged_;
  std::vector<std::string> printed_;
};

}  // namespace ostrand
