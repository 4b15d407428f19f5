#include "SimWorld.hpp"

#include <dlfcn.h>
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <functional>

#include "PowerRecorder.hpp"
#include "SimError.hpp"
#include "SimPower.hpp"

namespace OstrandSim {

using Qx::Nlv::Trace::ChannelEvent;

namespace {

template <typename T>
void addOnce(std::vector<T>& list, T item) {
  if (item != nullptr && std::find(list.begin(), list.end(), item) == list.end()) list.push_back(item);
}

template <typename T>
void removeAll(std::vector<T>& list, T item) {
  list.erase(std::remove(list.begin(), list.end(), item), list.end());
}

const char* channelText(int32_t kind) {
  switch (kind) {
    case 6: return "Recording";
    case 8: return "Stopped: buffer full";
    case 9: return "Stopped on trigger";
    case 11: return "Stopped on user request";
    case 17: return "Stopped on trace trigger";
    default: return "";
  }
}

}  // namespace

namespace {
std::atomic<SimWorld*> theWorld{nullptr};

// At process end (or when the library is unloaded) every run and the event
// thread stop; the world itself is left, as other libraries' objects may
// still ask it for answers during their own teardown.
__attribute__((destructor)) void stopTheWorld() {
  if (SimWorld* world = theWorld.load()) world->shutdown();
}
}  // namespace

SimWorld& SimWorld::instance() {
  static SimWorld* world = [] {
    auto* w = new SimWorld();
    theWorld.store(w);
    return w;
  }();
  return *world;
}

SimWorld::SimWorld() {
  eventThread_ = std::thread([this] { eventLoop(); });
  // The scenario file named at load time makes the debug session exist
  // before any tool library is asked for it.
  const char* env = std::getenv("OSTRAND_SIM_SCENARIO");
  if (env != nullptr && *env != '\0') {
    std::string error;
    if (loadScenario(env, error) != 0) {
      std::fprintf(stderr, "simulation: OSTRAND_SIM_SCENARIO not loaded: %s\n", error.c_str());
    }
  }
}

SimWorld::~SimWorld() { shutdown(); }

void SimWorld::shutdown() {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    for (auto& [name, cpu] : cpus_) {
      if (cpu.halt) cpu.halt->store(true);
    }
    std::vector<std::thread> threads;
    for (auto& [name, cpu] : cpus_) {
      if (cpu.thread.joinable()) threads.push_back(std::move(cpu.thread));
    }
    lock.unlock();
    for (std::thread& t : threads) t.join();
    // No emulator outlives the world's runs.
    lock.lock();
    for (auto& [name, cpu] : cpus_) {
      if (cpu.executor) cpu.executor->stop();
    }
  }
  {
    std::lock_guard<std::mutex> guard(queueMutex_);
    stopping_ = true;
  }
  queueChanged_.notify_all();
  if (eventThread_.joinable()) eventThread_.join();
}

std::string SimWorld::defaultScenarioPath() const {
  Dl_info info{};
  if (dladdr(reinterpret_cast<const void*>(&SimWorld::instance), &info) == 0 || info.dli_fname == nullptr) {
    return "scenarios/default.json";
  }
  return (std::filesystem::path(info.dli_fname).parent_path() / "scenarios" / "default.json").string();
}

// ---- events ---------------------------------------------------------------

void SimWorld::post(std::function<void()> event) {
  {
    std::lock_guard<std::mutex> guard(queueMutex_);
    if (stopping_) return;
    queue_.push_back(std::move(event));
  }
  queueChanged_.notify_one();
}

void SimWorld::eventLoop() {
  for (;;) {
    std::function<void()> event;
    {
      std::unique_lock<std::mutex> lock(queueMutex_);
      queueChanged_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;
      event = std::move(queue_.front());
      queue_.pop_front();
    }
    // No lock of the world is held here: a listener takes its own locks
    // (the module's tool lock among them) and may call back into the world.
    try {
      event();
    } catch (...) {
      // A listener must not throw; one that does loses this event only.
      std::fputs("simulation: an event listener threw; the event is dropped\n", stderr);
    }
  }
}

// Each delivery copies its list under listenersMutex_ and calls without it,
// so a listener's locks never nest inside ours; deliver() looks it up again
// first, so one removed meanwhile (by anyone) is skipped.
template <typename T>
std::vector<T> SimWorld::snapshot(const std::vector<T>& list) const {
  std::lock_guard<std::mutex> guard(listenersMutex_);
  return list;
}

template <typename T, typename F>
void SimWorld::deliver(const std::vector<T>& list, T item, F&& call) {
  {
    std::lock_guard<std::mutex> guard(listenersMutex_);
    if (std::find(list.begin(), list.end(), item) == list.end()) return;
    delivering_ = item;
  }
  struct Done {  // clears the mark, also when the listener throws
    SimWorld* world;
    ~Done() {
      std::unique_lock<std::mutex> lock(world->listenersMutex_);
      world->delivering_ = nullptr;
      lock.unlock();
      world->deliveryDone_.notify_all();
    }
  } done{this};
  call();
}

template <typename T>
void SimWorld::removeAndWait(std::vector<T>& list, T item) {
  std::unique_lock<std::mutex> lock(listenersMutex_);
  removeAll(list, item);
  if (std::this_thread::get_id() == eventThread_.get_id()) return;
  deliveryDone_.wait(lock, [&] { return delivering_ != item; });
}

void SimWorld::fireAdapter(bool added, const std::string& cpu) {
  post([this, added, cpu] {
    for (auto* l : snapshot(adapterListeners_)) {
      deliver(adapterListeners_, l, [&] { added ? l->adapterAdded(cpu.c_str()) : l->adapterRemoved(cpu.c_str()); });
    }
  });
}

void SimWorld::fireTargetState(const std::string& target, int32_t state) {
  post([this, target, state] {
    for (auto* l : snapshot(targetListeners_)) {
      deliver(targetListeners_, l, [&] { l->OnTargetStateChanged(target.c_str(), state); });
    }
  });
}

void SimWorld::fireChannel(const std::string& cpu, int32_t kind, const std::string& text) {
  post([this, cpu, kind, text] {
    ChannelEvent event;
    event.kind = kind;
    event.text = text;
    std::vector<Qx::Nlv::Trace::ChannelClient*> hearers;
    for (const auto& entry : snapshot(channelListeners_)) addOnce(hearers, entry.first);
    for (auto* l : hearers) {
      bool stillHeard = false;
      {
        std::lock_guard<std::mutex> guard(listenersMutex_);
        for (const auto& entry : channelListeners_) stillHeard = stillHeard || entry.first == l;
      }
      if (stillHeard) l->OnChannelEvent(cpu.c_str(), event);
    }
  });
}

void SimWorld::fireCleanup() {
  post([this] {
    for (auto* c : snapshot(cleanups_)) {
      deliver(cleanups_, c, [&] { c->cleanup(); });
    }
  });
}

// ---- listeners --------------------------------------------------------------

void SimWorld::addAdapterListener(Qx::Nlv::Hemlock::PBATargetAdapterEventListener* l) {
  std::lock_guard<std::mutex> guard(listenersMutex_);
  addOnce(adapterListeners_, l);
}
void SimWorld::removeAdapterListener(Qx::Nlv::Hemlock::PBATargetAdapterEventListener* l) {
  removeAndWait(adapterListeners_, l);
}
void SimWorld::clearAdapterListeners() {
  std::lock_guard<std::mutex> guard(listenersMutex_);
  adapterListeners_.clear();
}
void SimWorld::addTargetListener(Qx::Nlv::Trace::CTargetStateNotification* l) {
  std::lock_guard<std::mutex> guard(listenersMutex_);
  addOnce(targetListeners_, l);
}
void SimWorld::removeTargetListener(Qx::Nlv::Trace::CTargetStateNotification* l) {
  removeAndWait(targetListeners_, l);
}
void SimWorld::clearTargetListeners() {
  std::lock_guard<std::mutex> guard(listenersMutex_);
  targetListeners_.clear();
}
void SimWorld::addCleanup(Qx::Nlv::Hemlock::CleanupCallbackIF* c) {
  std::lock_guard<std::mutex> guard(listenersMutex_);
  addOnce(cleanups_, c);
}
void SimWorld::removeCleanup(Qx::Nlv::Hemlock::CleanupCallbackIF* c) {
  std::lock_guard<std::mutex> guard(listenersMutex_);
  removeAll(cleanups_, c);
}
void SimWorld::addChannelListener(Qx::Nlv::Trace::ChannelClient* l, const void* server) {
  std::lock_guard<std::mutex> guard(listenersMutex_);
  if (l == nullptr) return;
  auto entry = std::make_pair(l, server);
  if (std::find(channelListeners_.begin(), channelListeners_.end(), entry) == channelListeners_.end()) {
    channelListeners_.push_back(entry);
  }
}
void SimWorld::removeChannelListeners(const void* server) {
  std::lock_guard<std::mutex> guard(listenersMutex_);
  channelListeners_.erase(std::remove_if(channelListeners_.begin(), channelListeners_.end(),
                                         [server](const auto& e) { return e.second == server; }),
                          channelListeners_.end());
}

int32_t SimWorld::registerClient(Qx::Nlv::Hemlock::HLClientBaseIF* client, int32_t id) {
  if (client == nullptr) return -1;
  std::lock_guard<std::mutex> guard(listenersMutex_);
  clients_.insert({client, id});
  return 0;
}

int32_t SimWorld::unregisterClient(Qx::Nlv::Hemlock::HLClientBaseIF* client, int32_t id) {
  std::lock_guard<std::mutex> guard(listenersMutex_);
  return clients_.erase({client, id}) == 1 ? 0 : -1;
}

// ---- scenario and CPUs ---------------------------------------------------------

std::shared_ptr<const Scenario> SimWorld::scenario() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return scenario_;
}

int32_t SimWorld::numCpu() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return scenario_ ? static_cast<int32_t>(scenario_->cpus.size()) : 0;
}

bool SimWorld::cpuName(int32_t index, std::string& name) const {
  std::lock_guard<std::mutex> guard(mutex_);
  if (!scenario_ || index < 0 || static_cast<size_t>(index) >= scenario_->cpus.size()) return false;
  name = scenario_->cpus[static_cast<size_t>(index)].name;
  return true;
}

bool SimWorld::isConnected(const std::string& target) const {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = cpus_.find(target);
  return it != cpus_.end() && it->second.connected;
}

std::string SimWorld::cpuOfNode(const std::string& cpu, const std::string& node) const {
  std::lock_guard<std::mutex> guard(mutex_);
  if (!scenario_) return "";
  std::function<bool(const std::vector<NodeSpec>&)> holds = [&](const std::vector<NodeSpec>& nodes) {
    for (const NodeSpec& n : nodes) {
      if (n.name == node || holds(n.children)) return true;
    }
    return false;
  };
  for (const DeviceSpec& d : scenario_->devices) {
    bool ofCpu = false;
    for (const RouteSpec& r : d.routes) ofCpu |= r.source == cpu;
    std::function<bool(const std::vector<NodeSpec>&)> hasCpu = [&](const std::vector<NodeSpec>& nodes) {
      for (const NodeSpec& n : nodes) {
        if (n.name == cpu || hasCpu(n.children)) return true;
      }
      return false;
    };
    if ((ofCpu || hasCpu(d.nodes)) && (d.name == node || holds(d.nodes))) return cpu;
  }
  return "";
}

int32_t SimWorld::targetId(const std::string& name) const {
  std::lock_guard<std::mutex> guard(mutex_);
  if (scenario_) {
    for (size_t i = 0; i < scenario_->cpus.size(); ++i) {
      if (scenario_->cpus[i].name == name) return static_cast<int32_t>(i + 1);
    }
  }
  throw SimError("Unknown target '" + name + "'");
}

SimWorld::Cpu* SimWorld::findCpu(const std::string& name, std::string& error) {
  if (!scenario_) {
    error = "No scenario is active; load one first";
    return nullptr;
  }
  auto it = cpus_.find(name);
  if (it == cpus_.end()) {
    std::string known;
    for (const CpuSpec& c : scenario_->cpus) known += (known.empty() ? "" : ", ") + c.name;
    error = "No CPU '" + name + "' in scenario '" + scenario_->name + "' (CPUs: " + known + ")";
    return nullptr;
  }
  return &it->second;
}

void SimWorld::unloadLocked(std::unique_lock<std::mutex>& lock) {
  if (!scenario_) return;
  std::vector<std::thread> threads;
  for (auto& [name, cpu] : cpus_) {
    if (cpu.halt) cpu.halt->store(true);
    if (cpu.thread.joinable()) threads.push_back(std::move(cpu.thread));
  }
  lock.unlock();
  for (std::thread& t : threads) t.join();
  lock.lock();
  std::vector<std::string> connected;
  for (auto& [name, cpu] : cpus_) {
    if (cpu.connected) connected.push_back(name);
  }
  // The session ends: connected CPUs disconnect, then the tools clean up.
  scenario_.reset();
  cpus_.clear();
  for (const std::string& name : connected) {
    fireTargetState(name, Qx::Nlv::Trace::kStatePreDisconnect);
    fireTargetState(name, Qx::Nlv::Trace::kStateDisconnected);
    fireAdapter(false, name);
  }
  fireCleanup();
}

int32_t SimWorld::loadScenario(const std::string& path, std::string& error) {
  std::string file = path.empty() ? defaultScenarioPath() : path;
  std::shared_ptr<const Scenario> next;
  try {
    next = OstrandSim::loadScenario(file);
  } catch (const std::exception& e) {
    error = e.what();
    return -1;
  }
  std::unique_lock<std::mutex> lock(mutex_);
  unloadLocked(lock);
  scenario_ = next;
  for (const CpuSpec& spec : next->cpus) {
    Cpu& cpu = cpus_[spec.name];
    cpu.executor = makeExecutor(spec);
    if (next->hasRoute(spec.name, "WL")) cpu.power = makePowerProbe(spec);
  }
  changed_.notify_all();
  return 0;
}

int32_t SimWorld::connect(const std::string& name, std::string& error) {
  std::lock_guard<std::mutex> guard(mutex_);
  Cpu* cpu = findCpu(name, error);
  if (cpu == nullptr) return -1;
  if (cpu->connected) {
    error = "CPU " + name + " is already connected";
    return -2;
  }
  cpu->connected = true;
  fireAdapter(true, name);
  fireTargetState(name, Qx::Nlv::Trace::kStatePreConnect);
  fireTargetState(name, Qx::Nlv::Trace::kStateConnected);
  return 0;
}

int32_t SimWorld::disconnect(const std::string& name, std::string& error) {
  std::unique_lock<std::mutex> lock(mutex_);
  Cpu* cpu = findCpu(name, error);
  if (cpu == nullptr) return -1;
  if (!cpu->connected) {
    error = "CPU " + name + " is not connected";
    return -2;
  }
  if (cpu->running && cpu->halt) cpu->halt->store(true);
  std::thread thread = std::move(cpu->thread);
  lock.unlock();
  if (thread.joinable()) thread.join();
  lock.lock();
  cpu = findCpu(name, error);
  if (cpu == nullptr || !cpu->connected) return cpu == nullptr ? -1 : 0;
  cpu->connected = false;
  fireTargetState(name, Qx::Nlv::Trace::kStatePreDisconnect);
  fireTargetState(name, Qx::Nlv::Trace::kStateDisconnected);
  fireAdapter(false, name);
  return 0;
}

std::string SimWorld::stateJson() {
  Json::Value root(Json::objectValue);
  std::lock_guard<std::mutex> guard(mutex_);
  root["scenario"] = scenario_ ? Json::Value(scenario_->name) : Json::Value();
  root["path"] = scenario_ ? Json::Value(scenario_->path) : Json::Value();
  root["cpus"] = Json::Value(Json::arrayValue);
  if (scenario_) {
    for (const CpuSpec& spec : scenario_->cpus) {
      const Cpu& cpu = cpus_.at(spec.name);
      Json::Value c;
      c["name"] = spec.name;
      c["kind"] = spec.kind;
      c["machine"] = spec.machine;
      c["receiver"] = scenario_->traceReceiver(spec.name);
      c["state"] = !cpu.connected ? "disconnected" : cpu.running ? "running" : "halted";
      c["instructions"] = Json::UInt64(cpu.executor->instructions());
      c["time_ns"] = Json::UInt64(cpu.executor->timeNs());
      c["runs"] = Json::UInt64(cpu.runs);
      if (!cpu.lastError.empty()) c["error"] = cpu.lastError;
      root["cpus"].append(c);
    }
  }
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, root);
}

// ---- runs ---------------------------------------------------------------------

void SimWorld::settingsOf(const std::string& cpu, const std::string& receiver, TraceSettings& trace,
                          PowerSettings& power) {
  trace.receiver = receiver;
  trace.bufferBytes = receiver == "MTB" ? kDefaultMtbBufferBytes : kDefaultEtbBufferBytes;
  try {
    for (const auto& [id, entry] : operations_) {
      const OperationState& op = entry.second;
      if (entry.first != cpu || !op.enabled || op.sub) continue;
      if (op.receiver == receiver || op.receiver == "WL") applyMainProperties(op.receiver, op.props, trace, power);
    }
    for (const auto& [id, entry] : operations_) {
      const OperationState& op = entry.second;
      if (entry.first == cpu && op.enabled && op.sub) applySubProperties(op.props, trace);
    }
  } catch (const std::exception&) {
    // Settings were checked when they were set; a later mix that does not
    // fit leaves the defaults of the receiver.
  }
}

int32_t SimWorld::run(const std::string& name, uint64_t limit, std::string& error) {
  std::unique_lock<std::mutex> lock(mutex_);
  Cpu* cpu = findCpu(name, error);
  if (cpu == nullptr) return -1;
  if (!cpu->connected) {
    error = "CPU " + name + " is not connected; connect it first";
    return -2;
  }
  if (cpu->running) {
    error = "CPU " + name + " is already running";
    return -3;
  }
  if (cpu->thread.joinable()) {
    // The last run has ended (running is false); its thread is finishing.
    std::thread old = std::move(cpu->thread);
    lock.unlock();
    old.join();
    lock.lock();
    cpu = findCpu(name, error);
    if (cpu == nullptr) return -1;
    if (cpu->running || !cpu->connected) {
      error = "CPU " + name + " changed state while the run was starting";
      return -3;
    }
  }
  int32_t id = 0;
  for (size_t i = 0; i < scenario_->cpus.size(); ++i) {
    if (scenario_->cpus[i].name == name) id = static_cast<int32_t>(i + 1);
  }
  std::string receiver = scenario_->traceReceiver(name);
  const CpuSpec& spec = *scenario_->findCpu(name);
  if (!cpu->executor->ready(error)) {
    error = "CPU " + name + " cannot run: " + error;
    return -5;
  }
  TraceSettings trace;
  PowerSettings power;
  settingsOf(name, receiver, trace, power);
  if (!cpu->image) {
    try {
      cpu->image = std::make_shared<const ProgramImage>(spec.program);
    } catch (const std::exception&) {
      // The run reports why the program cannot be loaded.
    }
  }
  std::shared_ptr<TraceRecorder> recorder;
  if (!receiver.empty()) {
    try {
      recorder = makeRecorder(trace, spec.traceSourceId, spec.clockHz, cpu->image,
                              [this, name](RecordingStop why) {
                                bool trigger = why == RecordingStop::kTrigger;
                                fireChannel(name,
                                            trigger ? Qx::Nlv::Trace::kChannelStoppedTraceTrigger
                                                    : Qx::Nlv::Trace::kChannelStoppedFull,
                                            channelText(trigger ? 17 : 8));
                              });
    } catch (const std::exception& e) {
      error = "CPU " + name + ": the " + receiver + " cannot take its settings: " + e.what();
      return -6;
    }
  }
  PowerCapture capture;
  if (cpu->power && power.enabled) {
    capture.directory = power.dataDir.empty() ? traceDataDir() + "/.Wattline" : power.dataDir;
    capture.recordType = power.statesWanted && spec.jstate.isObject() ? 7 : 8;
  }
  cpu->running = true;
  cpu->runs += 1;
  cpu->lastError.clear();
  cpu->halt = std::make_shared<std::atomic<bool>>(false);
  cpu->recorder = recorder;
  if (recorder) cpu->runConfiguration = configurationOf(name, receiver, trace);
  // What a debugger reports when it lets a target go: the job's run setup to
  // the clients of the target, the trace channel recording, then running.
  post([this, id] {
    std::vector<Qx::Nlv::Hemlock::HLClientBaseIF*> hearers;
    {
      std::lock_guard<std::mutex> guard(listenersMutex_);
      for (const auto& [client, clientId] : clients_) {
        if (clientId == id) hearers.push_back(client);
      }
    }
    for (auto* c : hearers) {
      bool stillRegistered = false;
      {
        std::lock_guard<std::mutex> guard(listenersMutex_);
        stillRegistered = clients_.count({c, id}) == 1;
      }
      if (stillRegistered) c->onJobEvent(Qx::Nlv::Hemlock::kJobRunSetup, static_cast<uint64_t>(id));
    }
  });
  if (!receiver.empty()) fireChannel(name, Qx::Nlv::Trace::kChannelRecording, channelText(6));
  fireTargetState(name, Qx::Nlv::Trace::kStateRunning);
  cpu->thread = std::thread(&SimWorld::runThread, this, name, limit, cpu->halt, cpu->recorder,
                            std::move(capture), cpu);
  return 0;
}

void SimWorld::runThread(std::string name, uint64_t limit, std::shared_ptr<std::atomic<bool>> halt,
                         std::shared_ptr<TraceRecorder> recorder, PowerCapture capture, Cpu* cpu) {
  // The run's consumers: the trace unit, then the power probe, which hears
  // every run so it knows the device's state when a capture begins.
  StepFanout consumers;
  if (recorder) consumers.add(*recorder);
  if (cpu->power) consumers.add(*cpu->power);
  RunOutcome end;
  std::string powerError;
  try {
    if (!capture.directory.empty()) {
      cpu->power->startCapture(capture.directory, cpu->executor->timeNs(), capture.recordType);
    }
  } catch (const std::exception& e) {
    powerError = e.what();
  }
  try {
    end = cpu->executor->run(limit, *halt, consumers);
  } catch (const std::exception& e) {
    end.error = e.what();
  }
  // The capture is complete on disk before the halt is announced: the
  // halt is what makes a capture collect it.
  try {
    if (cpu->power) cpu->power->finish();
  } catch (const std::exception& e) {
    powerError = e.what();
  }
  std::lock_guard<std::mutex> guard(mutex_);
  cpu->running = false;
  cpu->lastError = !end.error.empty() ? end.error : powerError.empty() ? "" : "power capture: " + powerError;
  fireTargetState(name, Qx::Nlv::Trace::kStateHalted);
  changed_.notify_all();
}

int32_t SimWorld::halt(const std::string& name, std::string& error) {
  std::lock_guard<std::mutex> guard(mutex_);
  Cpu* cpu = findCpu(name, error);
  if (cpu == nullptr) return -1;
  if (!cpu->running) {
    error = "CPU " + name + " is not running";
    return -3;
  }
  cpu->halt->store(true);
  return 0;
}

int32_t SimWorld::waitHalted(const std::string& name, uint32_t timeoutMs, std::string& error) {
  std::unique_lock<std::mutex> lock(mutex_);
  Cpu* cpu = findCpu(name, error);
  if (cpu == nullptr) return -1;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  bool halted = changed_.wait_until(lock, deadline, [&] {
    Cpu* now = findCpu(name, error);
    return now == nullptr || !now->running;
  });
  if (!halted) {
    error = "CPU " + name + " did not halt within " + std::to_string(timeoutMs) + " ms";
    return -4;
  }
  return findCpu(name, error) == nullptr ? -1 : 0;
}

// ---- operations and channel ----------------------------------------------------

uint64_t SimWorld::addOperation(const std::string& cpu, bool sub) {
  std::lock_guard<std::mutex> guard(mutex_);
  uint64_t id = nextOperation_++;
  operations_[id] = {cpu, OperationState{}};
  operations_[id].second.sub = sub;
  return id;
}

void SimWorld::updateOperation(uint64_t id, const std::function<void(OperationState&)>& change) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = operations_.find(id);
  if (it != operations_.end()) change(it->second.second);
}

void SimWorld::releaseOperation(uint64_t id) {
  std::lock_guard<std::mutex> guard(mutex_);
  operations_.erase(id);
}

std::string SimWorld::stopRecording(const std::string& name) {
  std::shared_ptr<TraceRecorder> recorder;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    std::string error;
    Cpu* cpu = findCpu(name, error);
    if (cpu == nullptr) return error;
    recorder = cpu->recorder;
  }
  // Nothing recording (never started, or stopped by itself and said so).
  if (recorder && recorder->stop()) {
    fireChannel(name, Qx::Nlv::Trace::kChannelStoppedUserRequest, channelText(11));
  }
  return "";
}

std::shared_ptr<const RowSource> SimWorld::capture(const std::string& name) {
  std::shared_ptr<TraceRecorder> recorder;
  std::string receiver;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    std::string error;
    if (Cpu* cpu = findCpu(name, error)) recorder = cpu->recorder;
    if (scenario_) receiver = scenario_->traceReceiver(name);
  }
  if (recorder) return recorder->rows();
  return std::make_shared<TableRows>(decoderColumns(receiver));
}

}  // namespace OstrandSim
