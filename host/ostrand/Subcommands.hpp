// The subcommands of the `ostrand` program. Each takes the arguments after
// its own name (argv[0] is the subcommand name) and gives the process exit
// code (see ExitCodes.hpp).
#pragma once

namespace ostrand {

int runShell(int argc, char** argv);
int runServe(int argc, char** argv);
int runDemo(int argc, char** argv);
int runGenWattline(int argc, char** argv);
int runGen(int argc, char** argv);
int runLookup(int argc, char** argv);
int runDisasm(int argc, char** argv);

}  // namespace ostrand
