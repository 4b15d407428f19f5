// The subcommands of the `ostrand` program. Each takes the arguments after
// its own name (argv[0] is the subcommand name) and gives the process exit
// code (see ExitCodes.hpp).
#pragma once

#include <string>

namespace ostrand {

// A target path names directory levels below the data tree ("/" between
// them). A "." or ".." level would leave it, so `gen` refuses those.
inline bool isTargetBelowTree(const std::string& target) {
  size_t begin = 0;
  while (begin <= target.size()) {
    size_t end = target.find_first_of("/\\", begin);
    if (end == std::string::npos) end = target.size();
    const std::string level = target.substr(begin, end - begin);
    if (level == "." || level == "..") return false;
    begin = end + 1;
  }
  return true;
}

int runShell(int argc, char** argv);
int runServe(int argc, char** argv);
int runDemo(int argc, char** argv);
int runGenWattline(int argc, char** argv);
int runGen(int argc, char** argv);
int runGenTdf(int argc, char** argv);
int runLookup(int argc, char** argv);
int runDisasm(int argc, char** argv);

}  // namespace ostrand
