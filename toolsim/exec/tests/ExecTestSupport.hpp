// Helpers shared by the execution tests: the test programs, a consumer that
// records every step, an independent reading of QEMU's raw log, a bounded
// run of a board and the sequential stretches of its addresses.
#pragma once

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ExecStep.hpp"
#include "ProgramImage.hpp"
#include "QemuRunner.hpp"

namespace OstrandSim::test {

struct Board {
  const char* machine;
  const char* program;  // under testdata/firmware
};

inline const Board kBoards[] = {{"microbit", "run_microbit.elf"}, {"mps2-an386", "run_mps2.elf"}};

inline std::string programPath(const Board& b) {
  return std::string(OSTRAND_SOURCE_DIR) + "/testdata/firmware/" + b.program;
}

// A test name from a board's machine: "mps2-an386" -> "mps2_an386".
inline std::string testName(std::string name) {
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}
inline std::string boardName(const ::testing::TestParamInfo<Board>& info) { return testName(info.param.machine); }

class Recorder : public StepConsumer {
 public:
  void onStep(const ExecStep& step) override { steps.push_back(step); }
  std::vector<uint32_t> instructionAddresses() const {
    std::vector<uint32_t> out;
    for (const ExecStep& s : steps) {
      if (s.kind == StepKind::kInstruction) out.push_back(s.address);
    }
    return out;
  }
  std::vector<ExecStep> steps;
};

// The instructions QEMU's log says completed, read without the parser: a
// "Trace" line counts unless the next line takes it back.
inline std::vector<uint32_t> executedFromLog(const std::string& path) {
  std::ifstream in(path);
  std::vector<uint32_t> pcs;
  std::string line;
  while (std::getline(in, line)) {
    // The copy of the log ends wherever the run stopped reading, maybe in
    // the middle of a line: only whole lines count.
    if (line.rfind("Trace ", 0) == 0 && line.find(']') != std::string::npos) {
      const size_t slash = line.find('/');
      pcs.push_back(static_cast<uint32_t>(std::stoul(line.substr(slash + 1, 8), nullptr, 16)));
    } else if (line.rfind("Stopped execution", 0) == 0 || line.rfind("cpu_io_recompile", 0) == 0) {
      pcs.pop_back();
    }
  }
  return pcs;
}

inline bool processAlive(pid_t pid) { return pid > 0 && ::kill(pid, 0) == 0; }


// A run of `board`'s test program, QEMU's log copied to `log` when given.
inline QemuRunConfig runConfig(const Board& board, const std::string& log = "") {
  QemuRunConfig config;
  config.machine = board.machine;
  config.program = programPath(board);
  config.teeLogPath = log;
  return config;
}

// Runs `board` for `instructions` through `consumer` (with a recorder
// beside it) and returns the executed addresses as QEMU's own log shows
// them, cut to the instructions delivered.
inline std::vector<uint32_t> runBoard(const Board& board, uint64_t instructions,
                                      StepConsumer& consumer, Recorder* recorder = nullptr) {
  // One file per process and run: CTest runs test cases side by side.
  static int runs = 0;
  const std::string log = ::testing::TempDir() + "/run-" + board.machine + "-" +
                          std::to_string(::getpid()) + "-" + std::to_string(++runs) + ".log";
  Recorder local;
  StepFanout fanout;
  fanout.add(consumer);
  fanout.add(recorder != nullptr ? *recorder : local);
  QemuRunner runner(runConfig(board, log), fanout);
  runner.start();
  runner.run(instructions);
  runner.stop();
  std::vector<uint32_t> pcs = executedFromLog(log);
  std::remove(log.c_str());
  if (pcs.size() > instructions) pcs.resize(instructions);
  return pcs;
}

struct CodeRun {
  uint32_t first, last;
  bool operator==(const CodeRun&) const = default;
};

// The sequential stretches of an address sequence.
inline std::vector<CodeRun> runsOf(const std::vector<uint32_t>& pcs, const ProgramImage& image) {
  std::vector<CodeRun> runs;
  for (size_t i = 0; i < pcs.size(); ++i) {
    uint8_t size = 0;
    if (i == 0 || pcs[i] != runs.back().last + (image.opcodeAt(runs.back().last, size), size)) {
      runs.push_back({pcs[i], pcs[i]});
    } else {
      runs.back().last = pcs[i];
    }
  }
  return runs;
}

}  // namespace OstrandSim::test
