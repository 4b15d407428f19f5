// QemuLogParser: turns QEMU's execution log (-d exec,nochain,int with
// -singlestep and the trace event memory_region_ops_write) into ExecSteps,
// and keeps the CPU's virtual clock.
//
// What the log says and how it is read:
// - "Trace N: HOST [FLAGS/PC/...] SYM": the instruction at PC is about to
//   run. It is held back one line, because QEMU may take it back: "Stopped
//   execution of TB chain before ... [PC]" (an interrupt or the instruction
//   budget came first) and "cpu_io_recompile: rewound execution of TB to PC"
//   (a device access under instruction counting; it runs again) both mean
//   it did not complete.
// - "...loading from element N of ... vector table": exception N entered.
// - "Exception return: ... previous exception N" then "...successful
//   exception return": exception N left.
// - "memory_region_ops_write ... addr 0xA value 0xV ...": a bus write.
//
// Virtual time is instructions x nsPerInstruction plus the time slept. A
// WFI or WFE sleeps until the next SysTick expiry, which the parser derives
// from the program's own writes to SysTick (reload, enable, clock source):
// the same timeline QEMU keeps under instruction counting with sleep=off. A
// wait with an expiry already pending, or with SysTick off, sleeps 0.
//
// An exception entry carries in `address` the return address of the code it
// preempted (the next instruction to run there), which the log only shows
// when the handler returns: the steps from an entry on are held back until
// the handler has returned and the next instruction ran. An exception return
// carries the EXC_RETURN value in `address`. A handler that does not return
// within kMaxHeld steps, or the end of the log, leaves 0xFFFFFFFF there.
//
// Not thread-safe; one parser per run, fed on one thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <vector>
#include <string>
#include <string_view>

#include "ExecStep.hpp"
#include "ProgramImage.hpp"

namespace OstrandSim {

struct ClockModel {
  uint32_t nsPerInstruction = 32;     // 2^shift of -icount
  uint64_t sysTickClockHz = 25000000;  // the core clock SysTick counts with CLKSOURCE 1
  uint64_t sysTickRefHz = 1000000;     // the reference clock for CLKSOURCE 0
};

class QemuLogParser {
 public:
  QemuLogParser(const ProgramImage& image, const ClockModel& clock, StepConsumer& consumer);

  // Feeds a chunk of the log; lines may be split across chunks. Steps go to
  // the consumer as soon as they are certain; returns false once `budget`
  // instructions have been delivered since the last setBudget (the rest of
  // the chunk is kept and delivered by later calls).
  bool feed(std::string_view chunk);
  // Delivers what is still held back (the end of the log).
  void finish();
  // How many more instructions may be delivered before feed stops.
  void setBudget(uint64_t instructions) { budget_ = instructions; }
  uint64_t budget() const { return budget_; }
  // Stops delivery at once (from the consumer: halt within a step).
  void stopDelivery() { budget_ = 0; }
  // A flag another thread may raise to stop delivery after the current line.
  void setStopFlag(const std::atomic<bool>* stop) { stop_ = stop; }
  // Complete lines are waiting to be parsed (the budget stopped them).
  bool hasBacklog() const;

  static constexpr size_t kMaxHeld = size_t{1} << 20;

  // Instructions delivered to the consumer.
  uint64_t instructions() const { return delivered_; }
  uint64_t timeNs() const { return instructions_ * clock_.nsPerInstruction + sleptNs_; }
  uint64_t lines() const { return lines_; }

 private:
  bool drain();
  bool parseLine(std::string_view line);
  void emitPending();
  void emit(StepKind kind, uint32_t address, uint32_t value, uint8_t size);
  void deliverReady();
  void resolveAll(uint32_t address);
  void onBusWrite(uint32_t address, uint32_t value);
  void startSysTick();
  void advanceSysTick();

  const ProgramImage& image_;
  ClockModel clock_;
  StepConsumer& consumer_;
  std::string buffer_;  // log text not parsed yet, from offset_ on
  size_t offset_ = 0;
  const std::atomic<bool>* stop_ = nullptr;
  uint64_t budget_ = UINT64_MAX;
  uint64_t lines_ = 0;

  bool hasPending_ = false;
  uint32_t pendingPc_ = 0;
  uint64_t instructions_ = 0;  // parsed
  uint64_t delivered_ = 0;
  std::deque<ExecStep> held_;              // from the first open entry on
  std::deque<ExecStep> ready_;             // resolved, waiting for budget
  std::vector<size_t> openEntries_;        // held_ indices of entries not yet returned
  std::vector<size_t> unresolved_;         // returned entries waiting for the next instruction
  size_t heldBase_ = 0;                    // index of held_.front() since the run began
  uint64_t sleptNs_ = 0;
  bool waiting_ = false;  // the last instruction was WFI/WFE
  uint32_t waitPc_ = 0;
  uint32_t returning_ = 0;  // exception of "Exception return", until it succeeds
  uint32_t excReturn_ = 0;  // its EXC_RETURN value

  // SysTick as the program set it up.
  uint32_t sysTickReload_ = 0;
  uint32_t sysTickCsr_ = 0;
  uint64_t sysTickPeriodNs_ = 0;  // 0: not counting
  uint64_t nextExpiryNs_ = 0;
  bool expiryPending_ = false;
};

}  // namespace OstrandSim
