// Runs the `ostrand` program of this build as a user would, with a
// temporary home (USERPROFILE) so nothing is written into a real one.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

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

// The program started with its standard input on a pipe, so that a test can
// act while it runs; its output goes to files in `home`. `args` is shell
// text after the program name, `env` extra "NAME=value" text before it.
class RunningProgram {
 public:
  RunningProgram(const std::string& home, const std::string& args, const std::string& env = "",
                 const std::string& workingDir = "")
      : home_(home) {
    std::signal(SIGPIPE, SIG_IGN);  // a program that ends before its input must not end the test
    const std::string command = (workingDir.empty() ? "" : "cd '" + workingDir + "' && ") + "USERPROFILE='" +
                                home + "' " + env + " '" + OSTRAND_PROGRAM + "' " + args + " >'" + home +
                                "/out' 2>'" + home + "/err'";
    pipe_ = ::popen(command.c_str(), "w");
  }
  ~RunningProgram() { finish(); }
  void send(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), pipe_);
    std::fflush(pipe_);
  }
  // Waits until the standard output holds `text`; false after `seconds`.
  bool waitFor(const std::string& text, int seconds) const {
    for (int i = 0; i < seconds * 20; ++i) {
      if (readFile(home_ + "/out").find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }
  // Ends the input and waits for the program to end.
  ProgramRun finish() {
    if (pipe_ != nullptr) {
      const int status = ::pclose(pipe_);
      pipe_ = nullptr;
      run_ = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(home_ + "/out"), readFile(home_ + "/err")};
    }
    return run_;
  }

 private:
  std::string home_;
  FILE* pipe_ = nullptr;
  ProgramRun run_;
};

// Runs the program to its end in a temporary home of its own.
class ProgramRunner {
 public:
  ProgramRun run(const std::string& args, const std::string& input = "", const std::string& workingDir = "",
                 const std::string& env = "") {
    RunningProgram program(dir(), args, env, workingDir);
    program.send(input);
    return program.finish();
  }
  const std::string& dir() const { return home_.path(); }

 private:
  TempDir home_{"ostrand-prog"};
};

}  // namespace ostrand_test
