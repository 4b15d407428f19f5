// Scenario: what a simulated debug session holds, read from a JSON file
// (the format is described in docs/simulation.md): devices with their node
// trees and trace routes, and for each CPU node its processor kind, program,
// emulated machine and clock, power-state word description and power model.
// Every CPU runs its program under QEMU on its machine.
//
// Immutable after loadScenario; shared by pointer between the world and the
// objects a session hands out, so an old scenario outlives its replacement
// as long as something still refers to it.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace OstrandSim {

// Type codes of nodes that are not CPUs (a CPU node's code is its kind).
inline constexpr uint32_t kNodeTraceSink = 1001;
inline constexpr uint32_t kNodePowerProbe = 1002;
inline constexpr uint32_t kNodeBus = 1003;
inline constexpr uint32_t kNodeMemory = 1004;
inline constexpr uint32_t kNodePeripheral = 1005;

// A peripheral of the power model: its current while on, and the register
// whose last written value says whether it is on (any bit of the mask set).
struct PeripheralSpec {
  std::string name;  // as the state word's description names it
  double milliamps = 0.0;
  uint32_t enableRegister = 0;
  uint32_t enableMask = 1;
};

// The power model of a CPU as the scenario gives it; the power probe of a
// run is made from it (see PowerRecorder).
struct PowerSpec {
  double volts = 3.3;
  double runningMilliamps = 5.0;
  double sleepingMilliamps = 1.0;
  uint32_t sampleRateHz = 10000;
  std::vector<PeripheralSpec> peripherals;
};

struct CpuSpec {
  std::string name;
  uint32_t kind = 0;
  std::string program;  // absolute path of the ELF file
  std::string machine;  // QEMU machine
  uint64_t clockHz = 0;
  uint32_t traceSourceId = 0;
  Json::Value jstate;   // null: no state word description
  PowerSpec power;
};

struct NodeSpec {
  std::string name;
  std::string localName;
  uint32_t typeCode = 0;
  std::string program;  // CPU nodes only
  std::vector<NodeSpec> children;
};

struct RouteSpec {
  std::string source;
  std::string receiver;  // "MTB", "ETB" or "WL"
  std::string sink;      // a node of the device, may be empty
};

struct DeviceSpec {
  std::string name;
  uint32_t id = 0;
  uint32_t kind = 0;  // the kind of its first CPU
  std::vector<NodeSpec> nodes;
  std::vector<RouteSpec> routes;
};

struct Scenario {
  std::string name;
  std::string path;
  std::vector<DeviceSpec> devices;
  std::vector<CpuSpec> cpus;  // every CPU node, in tree order

  const CpuSpec* findCpu(const std::string& name) const;
  // The first trace receiver ("MTB" or "ETB") routed from `cpu`, or "".
  std::string traceReceiver(const std::string& cpu) const;
  bool hasRoute(const std::string& cpu, const std::string& receiver) const;
};

// Throws std::runtime_error "scenario <path>: <where>: <what>" on a file that
// cannot be read or does not describe a valid session.
std::shared_ptr<const Scenario> loadScenario(const std::string& path);

// The name of a node type code ("cpu", "trace sink", ...), "" if unknown.
const char* nodeTypeName(uint32_t code);
// Processor id of a device kind (0 if the kind is not in the table).
uint32_t processorIdOf(uint32_t kind);

}  // namespace OstrandSim
