// Runs the `ostrand` program of this build as a user would, with a
// temporary home (USERPROFILE) so nothing is written into a real one.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace ostrand_test {

struct ProgramRun {
  int exitCode = -1;
  std::string out;
  std::string err;
};

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class ProgramRunner {
 public:
  ProgramRunner() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ostrand-prog-XXXXXX").string();
    dir_ = mkdtemp(pattern.data());
  }
  ~ProgramRunner() { std::filesystem::remove_all(dir_); }
  ProgramRunner(const ProgramRunner&) = delete;
  ProgramRunner& operator=(const ProgramRunner&) = delete;

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
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};

}  // namespace ostrand_test
