#include "Scenario.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

#include "PowerRecorder.hpp"
#include "QemuRunner.hpp"

namespace OstrandSim {

namespace {

struct KindEntry {
  uint32_t kind;
  uint32_t processorId;
};
constexpr KindEntry kKinds[] = {{7, 0x75803800}, {8, 0x75801C00},  {10, 0x75814C00},
                                {11, 0x7580CC00}, {12, 0x5001D7F8}, {13, 0x50019BF8},
                                {36, 0x75802800}, {39, 0x5000A3F8}, {40, 0x5000A7F8}};

const std::map<std::string, uint32_t>& nodeTypes() {
  static const std::map<std::string, uint32_t> types = {{"trace sink", kNodeTraceSink},
                                                         {"power probe", kNodePowerProbe},
                                                         {"bus", kNodeBus},
                                                         {"memory", kNodeMemory},
                                                         {"peripheral", kNodePeripheral}};
  return types;
}

// Reads one file; every failure names the member that is wrong.
class Reader {
 public:
  explicit Reader(std::string path) : path_(std::move(path)) {
    base_ = std::filesystem::absolute(path_).parent_path();
  }

  [[noreturn]] void fail(const std::string& where, const std::string& what) const {
    throw std::runtime_error("scenario " + path_ + ": " + (where.empty() ? "" : where + ": ") +
                             what);
  }

  std::string text(const Json::Value& v, const char* key, const std::string& where,
                   bool required = true) const {
    const Json::Value& m = v[key];
    if (m.isNull() && !required) return "";
    if (!m.isString() || (required && m.asString().empty())) {
      fail(where, std::string("'") + key + "' must be a non-empty string");
    }
    return m.asString();
  }

  uint64_t number(const Json::Value& v, const char* key, const std::string& where,
                  uint64_t fallback, bool required) const {
    const Json::Value& m = v[key];
    if (m.isNull() && !required) return fallback;
    if (!m.isUInt64()) fail(where, std::string("'") + key + "' must be a whole number >= 0");
    return m.asUInt64();
  }

  double real(const Json::Value& v, const char* key, const std::string& where,
              double fallback) const {
    const Json::Value& m = v[key];
    if (m.isNull()) return fallback;
    if (!m.isNumeric() || m.asDouble() < 0) fail(where, std::string("'") + key + "' must be a number >= 0");
    return m.asDouble();
  }

  std::string file(const std::string& name, const std::string& where) const {
    std::filesystem::path p(name);
    if (p.is_relative()) p = base_ / p;
    p = p.lexically_normal();
    if (!std::filesystem::is_regular_file(p)) fail(where, "file not found: " + p.string());
    return p.string();
  }

  void jstate(const Json::Value& j, const std::string& where) const {
    if (!j.isObject()) fail(where, "'jstate' must be an object or null");
    if (!j["name"].isString() || j["name"].asString().empty()) {
      fail(where + ".jstate", "'name' must be a non-empty string");
    }
    const Json::Value& v = j["version"];
    if (!v.isInt() || (v.asInt() != 2 && v.asInt() != 4 && v.asInt() != 5)) {
      fail(where + ".jstate", "'version' must be 2, 4 or 5");
    }
    if (!j["bitFields"].isArray()) fail(where + ".jstate", "'bitFields' must be an array");
    for (Json::ArrayIndex i = 0; i < j["bitFields"].size(); ++i) {
      const Json::Value& f = j["bitFields"][i];
      std::string at = where + ".jstate.bitFields[" + std::to_string(i) + "]";
      if (!f.isObject() || !f["Name"].isString()) fail(at, "'Name' must be a string");
      if (!f["Start"].isInt() || !f["End"].isInt()) fail(at, "'Start' and 'End' must be integers");
      if (!f["Enums"].isNull() && !f["Enums"].isArray()) fail(at, "'Enums' must be an array");
    }
  }

  // An address as a whole number or a "0x..." string.
  uint32_t address(const Json::Value& v, const std::string& where) const {
    if (v.isUInt()) return v.asUInt();
    if (v.isString()) {
      const std::string t = v.asString();
      size_t used = 0;
      try {
        unsigned long long a = std::stoull(t, &used, 0);
        if (used == t.size() && a <= 0xFFFFFFFFull) return static_cast<uint32_t>(a);
      } catch (const std::exception&) {
      }
    }
    fail(where, "'register' must be a 32-bit address (a number or \"0x...\")");
  }

  PowerSpec power(const Json::Value& p, const std::string& where, const std::string& machine) const {
    PowerSpec m;
    if (p.isNull()) return m;
    if (!p.isObject()) fail(where, "'power' must be an object");
    std::string at = where + ".power";
    m.volts = real(p, "volts", at, m.volts);
    m.runningMilliamps = real(p, "running_ma", at, m.runningMilliamps);
    m.sleepingMilliamps = real(p, "sleeping_ma", at, m.sleepingMilliamps);
    m.sampleRateHz = static_cast<uint32_t>(number(p, "sample_rate_hz", at, m.sampleRateHz, false));
    if (m.sampleRateHz == 0 || m.sampleRateHz > 1000000) {
      fail(at, "'sample_rate_hz' must be 1 to 1000000");
    }
    const Json::Value& per = p["peripherals"];
    if (!per.isNull() && !per.isObject()) fail(at, "'peripherals' must be an object");
    const PowerModel board = defaultPowerModel(machine);
    for (const std::string& name : per.getMemberNames()) {
      const std::string here = at + ".peripherals." + name;
      const Json::Value& v = per[name];
      PeripheralSpec spec;
      spec.name = name;
      if (v.isNumeric()) {
        // A peripheral the board itself has: its enable register is known.
        auto known = std::find_if(board.peripherals.begin(), board.peripherals.end(),
                                  [&](const PeripheralSwitch& s) { return s.name == name; });
        if (known == board.peripherals.end()) {
          fail(here, "machine '" + machine + "' has no peripheral '" + name +
                         "'; give {\"ma\", \"register\", \"mask\"}");
        }
        spec.milliamps = v.asDouble();
        spec.enableRegister = known->enableRegister;
        spec.enableMask = known->enableMask;
      } else if (v.isObject()) {
        spec.milliamps = real(v, "ma", here, -1);
        if (spec.milliamps < 0) fail(here, "'ma' must be a number >= 0");
        spec.enableRegister = address(v["register"], here);
        spec.enableMask = static_cast<uint32_t>(number(v, "mask", here, 1, false));
        if (spec.enableMask == 0) fail(here, "'mask' must not be 0");
      } else {
        fail(here, "must be milliamps or an object {\"ma\", \"register\", \"mask\"}");
      }
      m.peripherals.push_back(std::move(spec));
    }
    return m;
  }

  NodeSpec node(const Json::Value& n, const std::string& where, Scenario& s) {
    if (!n.isObject()) fail(where, "a node must be an object");
    NodeSpec node;
    node.name = text(n, "name", where);
    node.localName = text(n, "local_name", where, false);
    if (!names_.insert(node.name).second) fail(where, "node name '" + node.name + "' is used twice");
    std::string type = text(n, "type", where);
    if (type == "cpu") {
      CpuSpec cpu;
      cpu.name = node.name;
      cpu.kind = static_cast<uint32_t>(number(n, "kind", where, 0, true));
      if (processorIdOf(cpu.kind) == 0) {
        fail(where, "'kind' must be one of 7, 8, 10, 11, 12, 13, 36, 39, 40");
      }
      cpu.program = file(text(n, "program", where), where + ".program");
      cpu.machine = text(n, "machine", where);
      cpu.clockHz = number(n, "clock_hz", where, 0, true);
      if (cpu.clockHz == 0) fail(where, "'clock_hz' must be above 0");
      cpu.traceSourceId = static_cast<uint32_t>(number(n, "trace_source_id", where, 0, false));
      if (findMachine(cpu.machine) == nullptr) {
        fail(where, "'machine' must be microbit, mps2-an385, mps2-an386, mps2-an500 or mps2-an505, not '" +
                        cpu.machine + "'");
      }
      if (!n["jstate"].isNull()) {
        jstate(n["jstate"], where);
        cpu.jstate = n["jstate"];
      }
      cpu.power = power(n["power"], where, cpu.machine);
      node.typeCode = cpu.kind;
      node.program = cpu.program;
      s.cpus.push_back(std::move(cpu));
    } else {
      auto it = nodeTypes().find(type);
      if (it == nodeTypes().end()) {
        fail(where, "'type' must be cpu, trace sink, power probe, bus, memory or peripheral, not '" +
                        type + "'");
      }
      node.typeCode = it->second;
    }
    const Json::Value& children = n["children"];
    if (!children.isNull() && !children.isArray()) fail(where, "'children' must be an array");
    for (Json::ArrayIndex i = 0; i < children.size(); ++i) {
      node.children.push_back(
          this->node(children[i], where + ".children[" + std::to_string(i) + "]", s));
    }
    return node;
  }

  void device(const Json::Value& d, const std::string& where, Scenario& s) {
    if (!d.isObject()) fail(where, "a device must be an object");
    DeviceSpec dev;
    dev.name = text(d, "name", where);
    dev.id = static_cast<uint32_t>(number(d, "id", where, 0, true));
    if (!names_.insert(dev.name).second) fail(where, "name '" + dev.name + "' is used twice");
    size_t firstCpu = s.cpus.size();
    const Json::Value& nodes = d["nodes"];
    if (!nodes.isArray() || nodes.empty()) fail(where, "'nodes' must be a non-empty array");
    for (Json::ArrayIndex i = 0; i < nodes.size(); ++i) {
      dev.nodes.push_back(node(nodes[i], where + ".nodes[" + std::to_string(i) + "]", s));
    }
    if (s.cpus.size() == firstCpu) fail(where, "a device needs at least one node of type cpu");
    dev.kind = s.cpus[firstCpu].kind;
    std::set<std::string> own;
    collect(dev.nodes, own);
    const Json::Value& routes = d["routes"];
    if (!routes.isNull() && !routes.isArray()) fail(where, "'routes' must be an array");
    for (Json::ArrayIndex i = 0; i < routes.size(); ++i) {
      std::string at = where + ".routes[" + std::to_string(i) + "]";
      RouteSpec r;
      r.source = text(routes[i], "source", at);
      r.receiver = text(routes[i], "receiver", at);
      r.sink = text(routes[i], "sink", at, false);
      if (r.receiver != "MTB" && r.receiver != "ETB" && r.receiver != "WL") {
        fail(at, "'receiver' must be MTB, ETB or WL");
      }
      bool cpuOfDevice = false;
      for (size_t c = firstCpu; c < s.cpus.size(); ++c) cpuOfDevice |= s.cpus[c].name == r.source;
      if (!cpuOfDevice) fail(at, "'source' must name a cpu node of this device");
      if (!r.sink.empty() && own.count(r.sink) == 0) fail(at, "'sink' must name a node of this device");
      dev.routes.push_back(r);
    }
    s.devices.push_back(std::move(dev));
  }

 private:
  static void collect(const std::vector<NodeSpec>& nodes, std::set<std::string>& out) {
    for (const NodeSpec& n : nodes) {
      out.insert(n.name);
      collect(n.children, out);
    }
  }

  std::string path_;
  std::filesystem::path base_;
  std::set<std::string> names_;
};

}  // namespace

const CpuSpec* Scenario::findCpu(const std::string& name) const {
  for (const CpuSpec& c : cpus) {
    if (c.name == name) return &c;
  }
  return nullptr;
}

std::string Scenario::traceReceiver(const std::string& cpu) const {
  for (const DeviceSpec& d : devices) {
    for (const RouteSpec& r : d.routes) {
      if (r.source == cpu && (r.receiver == "MTB" || r.receiver == "ETB")) return r.receiver;
    }
  }
  return "";
}

bool Scenario::hasRoute(const std::string& cpu, const std::string& receiver) const {
  for (const DeviceSpec& d : devices) {
    for (const RouteSpec& r : d.routes) {
      if (r.source == cpu && r.receiver == receiver) return true;
    }
  }
  return false;
}

std::shared_ptr<const Scenario> loadScenario(const std::string& path) {
  Reader reader(path);
  std::ifstream in(path, std::ios::binary);
  if (!in) reader.fail("", "cannot open the file");
  Json::Value root;
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  std::string errors;
  if (!Json::parseFromStream(builder, in, &root, &errors)) reader.fail("", "not JSON: " + errors);
  if (!root.isObject()) reader.fail("", "the top level must be an object");
  auto s = std::make_shared<Scenario>();
  s->path = std::filesystem::absolute(path).lexically_normal().string();
  s->name = reader.text(root, "name", "");
  const Json::Value& devices = root["devices"];
  if (!devices.isArray() || devices.empty()) reader.fail("", "'devices' must be a non-empty array");
  for (Json::ArrayIndex i = 0; i < devices.size(); ++i) {
    reader.device(devices[i], "devices[" + std::to_string(i) + "]", *s);
  }
  return s;
}

const char* nodeTypeName(uint32_t code) {
  if (processorIdOf(code) != 0) return "cpu";
  for (const auto& [name, value] : nodeTypes()) {
    if (value == code) return name.c_str();
  }
  return "";
}

uint32_t processorIdOf(uint32_t kind) {
  for (const KindEntry& e : kKinds) {
    if (e.kind == kind) return e.processorId;
  }
  return 0;
}

}  // namespace OstrandSim
