// Runs the `ostrand` program of this build as a user would, with a
// temporary home (USERPROFILE) so nothing is written into a real one.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "TestSupport.hpp"

namespace ostrand_test {

// A loopback port that was free a moment ago (the kernel's choice for port 0).
inline int freeLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), size);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(fd);
  return ntohs(address.sin_port);
}

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
