// What ModuleConnection::send costs the host while the module's worker is
// busy, against a plain locked queue push of the same text.
//
// The worker is held inside a receive() for the whole measurement, so every
// send only copies and queues; the connection is released before the worker
// is let go, so the queued commands are dropped rather than run.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>

#include "json_interface/ModuleConnection.hpp"

namespace {

constexpr const char* kMessage = R"({"command":"cloudTrace.stopSession","id":1})";
constexpr int64_t kSends = 1'000'000;

class HeldHost final : public HostConnection {
 public:
  void receive(const char*) override {
    std::unique_lock<std::mutex> guard(mutex_);
    held_ = true;
    cv_.notify_all();
    cv_.wait(guard, [&] { return open_; });
  }
  void closed() override {}
  void waitHeld() {
    std::unique_lock<std::mutex> guard(mutex_);
    cv_.wait(guard, [&] { return held_; });
  }
  void open() {
    std::lock_guard<std::mutex> guard(mutex_);
    open_ = true;
    cv_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool held_ = false;
  bool open_ = false;
};

void BM_LockedQueuePush(benchmark::State& state) {
  std::mutex mutex;
  std::deque<std::function<void()>> queue;
  for (auto _ : state) {
    std::string copy(kMessage);
    std::lock_guard<std::mutex> guard(mutex);
    queue.emplace_back([copy = std::move(copy)] { benchmark::DoNotOptimize(copy.data()); });
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LockedQueuePush)->Iterations(kSends)->Unit(benchmark::kNanosecond);

void BM_ModuleSendWhileWorkerBusy(benchmark::State& state) {
  // The module's per-user tree goes to a temporary home.
  char home[] = "/tmp/ostrand-bench-XXXXXX";
  if (mkdtemp(home) == nullptr) {
    state.SkipWithError("cannot make a temporary home");
    return;
  }
  setenv("USERPROFILE", home, 1);
  void* module = dlopen(OSTRAND_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    state.SkipWithError(dlerror());
    return;
  }
  auto create = reinterpret_cast<CreateJSONInterfaceModuleFn>(dlsym(module, "CreateJSONInterfaceModule"));
  HeldHost blocker;
  HostConnection* quiet = &blocker;
  auto* busy = create("trace", &blocker);
  auto* measured = create("trace", quiet);
  busy->send(kMessage);
  blocker.waitHeld();
  for (auto _ : state) measured->send(kMessage);
  state.SetItemsProcessed(state.iterations());
  measured->release();
  blocker.open();
  busy->release();
  dlclose(module);
  std::filesystem::remove_all(home);
}
BENCHMARK(BM_ModuleSendWhileWorkerBusy)->Iterations(kSends)->Unit(benchmark::kNanosecond);

}  // namespace

BENCHMARK_MAIN();
