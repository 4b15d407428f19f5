// SimWorld: the one simulated debug environment of a process. Every tool
// library of the simulation reaches the same world: the active scenario,
// the state of each CPU (connected, running, its executor and trace
// recording), the registered listeners and clients, and the one event
// thread on which every event goes out, in the order it was caused.
//
// Threads: every operation is thread-safe. Events are queued and delivered
// by the event thread, never inside the call that caused them, so a
// listener may call back into any operation. No lock of the world is held
// while a listener, client or cleanup callback is called: a delivery copies
// the list under listenersMutex_ and looks each entry up again just before
// calling it, so one removed before its turn is skipped. A removal returns at
// once; a call to that listener already under way on the event thread may
// still be finishing. Lock order: mutex_ (the world's state), then the
// queue's own lock (an event is posted under mutex_); listenersMutex_ is
// taken alone.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "RunSettings.hpp"
#include "Scenario.hpp"
#include "SimStep.hpp"
#include "TraceRecorder.hpp"
#include "hemlock/CleanupRegistry.hpp"
#include "hemlock/HLClient.hpp"
#include "hemlock/TargetAdapter.hpp"
#include "trace/ChannelClient.hpp"

namespace OstrandSim {

class PowerRecorder;

// An operation's part in the next run of its CPU.
struct OperationState {
  bool sub = false;            // a sub-operation (kind 1)
  std::string receiver;        // main: "MTB", "ETB", "WL"; "" until configured
  std::vector<PropNode> props;
  bool enabled = false;
};

class __attribute__((visibility("default"))) SimWorld {
 public:
  // The world; made on first use, with the scenario of OSTRAND_SIM_SCENARIO
  // if that is set.
  static SimWorld& instance();
  ~SimWorld();

  // Control: 0, or a negative result with the reason in `error`.
  int32_t loadScenario(const std::string& path, std::string& error);
  int32_t connect(const std::string& cpu, std::string& error);
  int32_t disconnect(const std::string& cpu, std::string& error);
  int32_t run(const std::string& cpu, uint64_t limit, std::string& error);
  int32_t halt(const std::string& cpu, std::string& error);
  int32_t waitHalted(const std::string& cpu, uint32_t timeoutMs, std::string& error);
  std::string stateJson();
  // Ends every run and the event thread; the world stays usable afterwards
  // only for answers (used at process end).
  void shutdown();

  std::shared_ptr<const Scenario> scenario() const;
  std::string defaultScenarioPath() const;

  // Adapter library.
  int32_t numCpu() const;
  bool cpuName(int32_t index, std::string& name) const;
  bool isConnected(const std::string& target) const;
  // The CPU whose device holds `node` below `cpu`'s tree ("" if none).
  std::string cpuOfNode(const std::string& cpu, const std::string& node) const;

  void addAdapterListener(Qx::Nlv::Hemlock::PBATargetAdapterEventListener* l);
  void removeAdapterListener(Qx::Nlv::Hemlock::PBATargetAdapterEventListener* l);
  void clearAdapterListeners();
  void addTargetListener(Qx::Nlv::Trace::CTargetStateNotification* l);
  void removeTargetListener(Qx::Nlv::Trace::CTargetStateNotification* l);
  void clearTargetListeners();
  void addCleanup(Qx::Nlv::Hemlock::CleanupCallbackIF* c);
  // No wait here, unlike the listeners: a gate that removes its cleanup may
  // hold the lock its own cleanup() takes.
  void removeCleanup(Qx::Nlv::Hemlock::CleanupCallbackIF* c);
  void addChannelListener(Qx::Nlv::Trace::ChannelClient* l, const void* server);
  void removeChannelListeners(const void* server);

  // Job manager and manager. targetId throws SimError for an unknown name.
  int32_t targetId(const std::string& name) const;
  int32_t registerClient(Qx::Nlv::Hemlock::HLClientBaseIF* client, int32_t id);
  int32_t unregisterClient(Qx::Nlv::Hemlock::HLClientBaseIF* client, int32_t id);

  // Operations of a CPU: made by operation servers, kept here so a run
  // can read them. The id is valid until releaseOperation.
  uint64_t addOperation(const std::string& cpu, bool sub);
  void updateOperation(uint64_t id, const std::function<void(OperationState&)>& change);
  void releaseOperation(uint64_t id);

  // Channel. stopRecording answers with a "stopped" channel event.
  std::string stopRecording(const std::string& cpu);
  // What the CPU's trace holds now: the recording of the last (or current)
  // run, or an empty table of the receiver's columns.
  std::shared_ptr<const RowSource> capture(const std::string& cpu);
  // Saves the trace of the CPU's last run as a .tdf recording (written by
  // SimRecording.cpp): -1 unknown CPU, -2 no run with a trace yet, -3
  // running, -4 the file could not be written.
  int32_t saveRecording(const std::string& cpu, const std::string& file, std::string& error);

 private:
  struct Cpu {
    std::unique_ptr<CpuExecutor> executor;
    std::shared_ptr<const ProgramImage> image;  // loaded at the first run
    // The power probe of a CPU with a WL route: follows the device through
    // every run, captures during the runs a WL operation is armed for.
    std::shared_ptr<PowerRecorder> power;
    bool connected = false;
    bool running = false;
    uint64_t runs = 0;
    std::string lastError;
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> halt;
    std::shared_ptr<TraceRecorder> recorder;
    std::string runConfiguration;  // JSON text: what the operations asked of the last run
  };

  SimWorld();
  // The enabled operations' properties for `receiver`, as a recording keeps
  // them (SimRecording.cpp); caller holds mutex_.
  std::string configurationOf(const std::string& cpu, const std::string& receiver,
                              const TraceSettings& settings) const;
  void post(std::function<void()> event);
  void eventLoop();
  // Where a power capture goes when the run starts, and its record type.
  struct PowerCapture {
    std::string directory;  // empty: no capture this run
    uint32_t recordType = 8;
  };
  void runThread(std::string cpu, uint64_t limit, std::shared_ptr<std::atomic<bool>> halt,
                 std::shared_ptr<TraceRecorder> recorder, PowerCapture capture, Cpu* state);
  void settingsOf(const std::string& cpu, const std::string& receiver, TraceSettings& trace,
                  PowerSettings& power);
  Cpu* findCpu(const std::string& name, std::string& error);  // caller holds mutex_
  void unloadLocked(std::unique_lock<std::mutex>& lock);

  void fireAdapter(bool added, const std::string& cpu);
  void fireTargetState(const std::string& target, int32_t state);
  void fireChannel(const std::string& cpu, int32_t kind, const std::string& text);
  void fireCleanup();

  // Copy of a listener list, taken under listenersMutex_ (event thread).
  template <typename T>
  std::vector<T> snapshot(const std::vector<T>& list) const;
  // Calls `call` if item is still in list, marked as the listener being
  // delivered to while it runs (event thread).
  template <typename T, typename F>
  void deliver(const std::vector<T>& list, T item, F&& call);
  // Takes item out of list, then waits until no delivery to it is under
  // way, so its owner may destroy it on return. From the event thread itself
  // (a listener removing one inside a delivery) it does not wait.
  template <typename T>
  void removeAndWait(std::vector<T>& list, T item);

  mutable std::mutex listenersMutex_;  // guards the listener lists and clients_ below
  const void* delivering_ = nullptr;   // the listener being called now (guarded by listenersMutex_)
  std::condition_variable deliveryDone_;
  std::vector<Qx::Nlv::Hemlock::PBATargetAdapterEventListener*> adapterListeners_;
  std::vector<Qx::Nlv::Trace::CTargetStateNotification*> targetListeners_;
  std::vector<Qx::Nlv::Hemlock::CleanupCallbackIF*> cleanups_;
  std::vector<std::pair<Qx::Nlv::Trace::ChannelClient*, const void*>> channelListeners_;
  std::set<std::pair<Qx::Nlv::Hemlock::HLClientBaseIF*, int32_t>> clients_;

  mutable std::mutex mutex_;  // guards the scenario, cpus_, operations_ and nextOperation_
  std::condition_variable changed_;
  std::shared_ptr<const Scenario> scenario_;
  std::map<std::string, Cpu> cpus_;
  std::map<uint64_t, std::pair<std::string, OperationState>> operations_;
  uint64_t nextOperation_ = 1;

  std::mutex queueMutex_;  // guards queue_ and stopping_
  std::condition_variable queueChanged_;
  std::deque<std::function<void()>> queue_;
  bool stopping_ = false;
  std::thread eventThread_;
};

}  // namespace OstrandSim
