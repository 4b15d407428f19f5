// Runs the `ostrand` program of this build as a user would, with a
// temporary home (USERPROFILE) so nothing is written into a real one.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "TestSupport.hpp"

namespace ostrand_test {

struct ProgramRun {
  int exitCode = -1;
  std::string out;
  std::string err;
};

class ProgramRunner {
 public:

  // `args` is shell text after the program name; runs in `workingDir` when
  // given.
  // `env` is extra "NAME=value" text put before the program.
  ProgramRun run(const std::string& args, const std::string& input = "",
                 const std::string& workingDir = "", const std::string& env = "") {
    std::string in = dir_ + "/in", out = dir_ + "/out", err = dir_ + "/err";
    std::ofstream(in, std::ios::binary) << input;
    std::string command = (workingDir.empty() ? "" : "cd '" + workingDir + "' && ") + "USERPROFILE='" +
                          dir_ + "' " + env + " '" + OSTRAND_PROGRAM + "' " + args + " <'" + in + "' >'" + out +
                          "' 2>'" + err + "'";
    int status = std::system(command.c_str());
    ProgramRun r;
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = readFile(out);
    r.err = readFile(err);
    return r;
  }
  const std::string& dir() const { return home_.path(); }

 private:
  TempDir home_{"ostrand-prog"};
  const std::string& dir_ = home_.path();
};

}  // namespace ostrand_test
