#include "SimHemlock.hpp"

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "SimError.hpp"
#include "SimWorld.hpp"

namespace OstrandSim {

using namespace Qx::Nlv::Hemlock;

namespace {

class SimJobManager final : public IHemlockJobManager {
 public:
  int32_t getTargetId(const char* name, bool) override {
    return SimWorld::instance().targetId(name != nullptr ? name : "");
  }
};

class SimManager final : public IHemlockManager {
 public:
  int32_t registerClient(HLClientBaseIF* client, int32_t id) override {
    return SimWorld::instance().registerClient(client, id);
  }
  int32_t unregisterClient(HLClientBaseIF* client, int32_t id) override {
    return SimWorld::instance().unregisterClient(client, id);
  }
};

class SimCleanupRegistry final : public ICleanupRegistry {
 public:
  void add(CleanupCallbackIF* callback) override { SimWorld::instance().addCleanup(callback); }
  void remove(CleanupCallbackIF* callback) override { SimWorld::instance().removeCleanup(callback); }
};

// The adapter of a CPU, or of a node below it (which reports its CPU's
// connection).
class SimTargetAdapter final : public ITargetAdapter {
 public:
  explicit SimTargetAdapter(std::string cpu) : cpu_(std::move(cpu)) {}
  bool isConnected() override { return SimWorld::instance().isConnected(cpu_); }
  ITargetAdapter* findTarget(const char* name) override;

 private:
  std::string cpu_;
};

std::mutex adaptersMutex;  // guards adapters
std::map<std::string, std::unique_ptr<SimTargetAdapter>> adapters;  // by target name, never shrinks

ITargetAdapter* adapterFor(const std::string& name, const std::string& cpu) {
  std::lock_guard<std::mutex> guard(adaptersMutex);
  auto& slot = adapters[name];
  if (!slot) slot = std::make_unique<SimTargetAdapter>(cpu);
  return slot.get();
}

ITargetAdapter* SimTargetAdapter::findTarget(const char* name) {
  std::string target = name != nullptr ? name : "";
  if (SimWorld::instance().cpuOfNode(cpu_, target).empty()) return nullptr;
  return adapterFor(target, cpu_);
}

}  // namespace

IHemlockJobManager* jobManager() {
  static SimJobManager manager;
  return &manager;
}

IHemlockManager* hemlockManager() {
  static SimManager manager;
  return &manager;
}

ICleanupRegistry* cleanupRegistry() {
  static SimCleanupRegistry registry;
  return &registry;
}

ITargetAdapter* targetAdapter(const char* name) {
  auto scenario = SimWorld::instance().scenario();
  if (name == nullptr || !scenario || scenario->findCpu(name) == nullptr) return nullptr;
  return adapterFor(name, name);
}

void* presenceToken(const char* library) {
  static std::map<std::string, int> tokens;
  static std::mutex mutex;
  std::lock_guard<std::mutex> guard(mutex);
  return &tokens[library != nullptr ? library : ""];
}

}  // namespace OstrandSim
