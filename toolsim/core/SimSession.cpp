#include "SimSession.hpp"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "SimError.hpp"
#include "SimWorld.hpp"
#include "TdfRecording.hpp"

namespace OstrandSim {

using namespace Qx::Nlv::Xevt;

namespace {

void copyError(char* buffer, size_t size, const std::string& text) {
  if (buffer == nullptr || size == 0) return;
  size_t n = std::min(size - 1, text.size());
  std::memcpy(buffer, text.data(), n);
  buffer[n] = '\0';
}

char* dup(const std::string& s) { return strdup(s.c_str()); }

// ---- properties and operations ---------------------------------------------

class SimProperty final : public IProperty {
 public:
  explicit SimProperty(PropNode node) : node_(std::move(node)) {}
  void addChild(IProperty* child) override {
    if (child == nullptr) return;  // a null child is what a non-object element gives
    auto* c = static_cast<SimProperty*>(child);
    c->refs_ += 1;
    children_.push_back(c);
  }
  void release() override {
    if (--refs_ == 0) {
      for (SimProperty* c : children_) c->release();
      delete this;
    }
  }
  // The tree as the operation keeps it.
  PropNode tree() const {
    PropNode n = node_;
    for (const SimProperty* c : children_) n.children.push_back(c->tree());
    return n;
  }

 private:
  ~SimProperty() = default;
  PropNode node_;
  std::vector<SimProperty*> children_;
  int refs_ = 1;
};

class SimOperation final : public TargetOperations::IOperation6 {
 public:
  SimOperation(std::string cpu, bool sub)
      : cpu_(std::move(cpu)), sub_(sub), id_(SimWorld::instance().addOperation(cpu_, sub)) {}

  const char* getKindName() override { return kind_.c_str(); }

  void setProperties(IProperty* const* properties, uint32_t count) override {
    std::vector<PropNode> props;
    for (uint32_t i = 0; i < count; ++i) {
      if (properties != nullptr && properties[i] != nullptr) {
        props.push_back(static_cast<SimProperty*>(properties[i])->tree());
      }
    }
    std::string receiver = sub_ ? "ETB" : receiverOf(props);
    auto scenario = SimWorld::instance().scenario();
    if (!sub_ && (receiver.empty() || !scenario || !scenario->hasRoute(cpu_, receiver))) {
      throw SimError(receiver.empty() ? "The settings name no receiver (\"Receiver\")"
                                      : "CPU " + cpu_ + " has no " + receiver + " route");
    }
    try {
      TraceSettings trace;
      PowerSettings power;
      sub_ ? applySubProperties(props, trace) : applyMainProperties(receiver, props, trace, power);
    } catch (const std::invalid_argument& e) {
      throw SimError(e.what());
    }
    kind_ = receiver;
    SimWorld::instance().updateOperation(id_, [&](OperationState& op) {
      op.receiver = receiver;
      op.props = std::move(props);
    });
  }

  bool enable(bool on) override {
    bool configured = false;
    SimWorld::instance().updateOperation(id_, [&](OperationState& op) {
      configured = !op.props.empty();
      if (configured || !on) op.enabled = on;
    });
    error_ = on && !configured ? "The operation has no settings; set its properties first" : "";
    return error_.empty();
  }

  const char* getErrorText() override { return error_.c_str(); }

  void release() override {
    SimWorld::instance().releaseOperation(id_);
    delete this;
  }

 private:
  ~SimOperation() override = default;

  static std::string receiverOf(const std::vector<PropNode>& props) {
    for (const PropNode& p : props) {
      if (p.name == "Receiver") return p.text;
      std::string inner = receiverOf(p.children);
      if (!inner.empty()) return inner;
    }
    return "";
  }

  std::string cpu_;
  bool sub_;
  uint64_t id_;
  std::string kind_;
  std::string error_;
};

class SimOperationServer final : public IOperationServer {
 public:
  SimOperationServer(std::string cpu, bool sub) : cpu_(std::move(cpu)), sub_(sub) {}

  // A new operation on each call: one target carries several (MTB and power,
  // an ETB's trace-on, range and trigger units), each configured and
  // released on its own.
  TargetOperations::IOperation* getOperation() override { return new SimOperation(cpu_, sub_); }

  IProperty* makeAddress64(const char* name, uint64_t address, uint32_t page) override {
    return make(name, PropNode::Kind::kAddress, [&](PropNode& n) { n.number = address, n.page = page; });
  }
  IProperty* makeAddress(const char* name, uint32_t address, uint32_t page) override {
    return makeAddress64(name, address, page);
  }
  IProperty* makeString(const char* name, const char* value) override {
    if (value == nullptr) return nullptr;
    return make(name, PropNode::Kind::kString, [&](PropNode& n) { n.text = value; });
  }
  IProperty* makeNumber(const char* name, uint64_t value) override {
    return make(name, PropNode::Kind::kNumber, [&](PropNode& n) { n.number = value; });
  }
  IProperty* makeBoolean(const char* name, bool value) override {
    return make(name, PropNode::Kind::kBoolean, [&](PropNode& n) { n.flag = value; });
  }
  IProperty* makeGroup(const char* name) override {
    return make(name, PropNode::Kind::kGroup, [](PropNode&) {});
  }
  void release() override { delete this; }

 private:
  ~SimOperationServer() = default;
  static IProperty* make(const char* name, PropNode::Kind kind, const std::function<void(PropNode&)>& fill) {
    if (name == nullptr) return nullptr;
    PropNode n;
    n.name = name;
    n.kind = kind;
    fill(n);
    return new SimProperty(std::move(n));
  }
  std::string cpu_;
  bool sub_;
};

// ---- devices ------------------------------------------------------------------

const NodeSpec* findNode(const std::vector<NodeSpec>& nodes, const std::string& name) {
  for (const NodeSpec& n : nodes) {
    if (n.name == name) return &n;
    if (const NodeSpec* inner = findNode(n.children, name)) return inner;
  }
  return nullptr;
}

class SimRoute final : public IRoute {
 public:
  explicit SimRoute(const RouteSpec& spec) : spec_(spec) {
    if (!spec_.sink.empty()) sinkNames_.push_back(spec_.sink.c_str());
  }
  void getSource(const char*& source) override { source = spec_.source.c_str(); }
  void getReceiver(const char*& receiver) override { receiver = spec_.receiver.c_str(); }
  void getLinkedNodes(uint32_t kind, NameList& nodes) override {
    nodes = kind == kLinkedSink ? NameList{sinkNames_.data(), static_cast<uint32_t>(sinkNames_.size())}
                                : NameList{};
  }

 private:
  const RouteSpec& spec_;
  std::vector<const char*> sinkNames_;
};

class SimDevice final : public IDevice {
 public:
  SimDevice(const DeviceSpec& spec, const Scenario& scenario) : spec_(spec), scenario_(scenario) {
    for (const RouteSpec& r : spec_.routes) routes_.push_back(std::make_unique<SimRoute>(r));
    for (const auto& r : routes_) routePointers_.push_back(r.get());
  }
  void getName(const char*& name) override { name = spec_.name.c_str(); }
  uint32_t getId() override { return spec_.id; }
  void getTypeName(const char*& name, uint32_t code) override {
    name = nodeTypeName(code);
  }
  uint32_t childCount(const char* node) override { return static_cast<uint32_t>(childrenOf(node).size()); }
  void getChildren(const char* node, const char** names, uint32_t count) override {
    const auto& children = childrenOf(node);
    for (uint32_t i = 0; i < count && i < children.size() && names != nullptr; ++i) {
      names[i] = children[i].name.c_str();
    }
  }
  // Any CPU of the session answers with its kind, so the first device can
  // tell the kind of a CPU of another device.
  uint32_t getTypeCode(const char* node) override {
    std::string name = node != nullptr ? node : "";
    if (name == spec_.name) return spec_.kind;
    if (const NodeSpec* n = findNode(spec_.nodes, name)) return n->typeCode;
    const CpuSpec* cpu = scenario_.findCpu(name);
    return cpu != nullptr ? cpu->kind : 0;
  }
  void getRoutes(RouteList& routes) override {
    routes = {routePointers_.data(), static_cast<uint32_t>(routePointers_.size())};
  }
  void getSinkName(const char* node, const char*& sink) override {
    const NodeSpec* n = node != nullptr ? findNode(spec_.nodes, node) : nullptr;
    sink = n != nullptr ? n->name.c_str() : "";
  }
  void getLocalName(const char* node, const char*& localName) override {
    const NodeSpec* n = node != nullptr ? findNode(spec_.nodes, node) : nullptr;
    localName = n != nullptr ? n->localName.c_str() : "";
  }
  void getOutFileName(const wchar_t*& file, const char* node) override {
    const NodeSpec* n = node != nullptr ? findNode(spec_.nodes, node) : nullptr;
    if (n == nullptr || n->program.empty()) {
      file = nullptr;
      return;
    }
    auto& wide = wide_[n->name];
    if (wide.empty()) wide.assign(n->program.begin(), n->program.end());
    file = wide.c_str();
  }

 private:
  const std::vector<NodeSpec>& childrenOf(const char* node) const {
    static const std::vector<NodeSpec> none;
    std::string name = node != nullptr ? node : "";
    if (name == spec_.name) return spec_.nodes;
    const NodeSpec* n = findNode(spec_.nodes, name);
    return n != nullptr ? n->children : none;
  }

  const DeviceSpec& spec_;
  const Scenario& scenario_;
  std::vector<std::unique_ptr<SimRoute>> routes_;
  std::vector<IRoute*> routePointers_;
  std::map<std::string, std::wstring> wide_;
};

class SimTargetObject final : public ITargetObject {
 public:
  explicit SimTargetObject(const CpuSpec& cpu) : cpu_(cpu) {}
  bool getStateDescription(StateDescription& d, const char* target) override {
    const Json::Value& j = cpu_.jstate;
    if (j.isNull()) return false;
    d = StateDescription{};
    d.name = dup(j["name"].asString());
    d.version = j["version"].asInt();
    const Json::Value& fields = j["bitFields"];
    d.bitFieldCount = fields.size();
    d.bitFields = static_cast<StateBitField*>(std::calloc(std::max(1u, d.bitFieldCount), sizeof(StateBitField)));
    for (uint32_t i = 0; i < d.bitFieldCount; ++i) {
      const Json::Value& f = fields[i];
      StateBitField& out = d.bitFields[i];
      out.name = dup(f["Name"].asString());
      out.description = dup(f["Description"].isString() ? f["Description"].asString() : "");
      out.start = f["Start"].asInt();
      out.end = f["End"].asInt();
      out.width = f["Width"].isInt() ? f["Width"].asInt() : out.end - out.start + 1;
      const Json::Value& enums = f["Enums"];
      out.enumCount = enums.isArray() ? enums.size() : 0;
      out.enums = static_cast<StateEnum*>(std::calloc(std::max(1u, out.enumCount), sizeof(StateEnum)));
      for (uint32_t e = 0; e < out.enumCount; ++e) {
        out.enums[e].choice = dup(enums[e]["Choice"].asString());
        out.enums[e].description = dup(enums[e]["Description"].asString());
        out.enums[e].value = enums[e]["Value"].asInt64();
      }
    }
    return true;
  }

 private:
  const CpuSpec& cpu_;
};

class SimSession final : public ISession {
 public:
  SimSession(std::shared_ptr<const Scenario> scenario, bool file)
      : scenario_(std::move(scenario)), file_(file) {
    for (const DeviceSpec& d : scenario_->devices) devices_.push_back(std::make_unique<SimDevice>(d, *scenario_));
    for (const CpuSpec& c : scenario_->cpus) targets_.push_back(std::make_unique<SimTargetObject>(c));
  }
  uint32_t deviceCount() override { return static_cast<uint32_t>(devices_.size()); }
  void getDevices(IDevice** devices, uint32_t count) override {
    for (uint32_t i = 0; i < count && i < devices_.size() && devices != nullptr; ++i) devices[i] = devices_[i].get();
  }
  IOperationServer* getSubOperationServer(const char* target, char* errorText, size_t size) override {
    return server(target, true, errorText, size);
  }
  IOperationServer* getOperationServer(const char* target, char* errorText, size_t size) override {
    return server(target, false, errorText, size);
  }
  ITargetObject* getTargetObject(const char* target, char* errorText, size_t size) override {
    std::string name = target != nullptr ? target : "";
    for (size_t i = 0; i < scenario_->cpus.size(); ++i) {
      if (scenario_->cpus[i].name == name) return targets_[i].get();
    }
    copyError(errorText, size, "No target '" + name + "' in this session");
    return nullptr;
  }

 private:
  IOperationServer* server(const char* target, bool sub, char* errorText, size_t size) {
    std::string name = target != nullptr ? target : "";
    if (file_) {
      copyError(errorText, size, "A recording's session has no operations: its CPU does not run");
      return nullptr;
    }
    if (scenario_->findCpu(name) == nullptr) {
      copyError(errorText, size, "No CPU '" + name + "' in this session");
      return nullptr;
    }
    if (sub && scenario_->traceReceiver(name) != "ETB") {
      copyError(errorText, size, "CPU " + name + " has no trace unit with sub-operations (ETB)");
      return nullptr;
    }
    return new SimOperationServer(name, sub);
  }

  std::shared_ptr<const Scenario> scenario_;
  bool file_;
  std::vector<std::unique_ptr<SimDevice>> devices_;
  std::vector<std::unique_ptr<SimTargetObject>> targets_;
};

// The program a recording names, or the file of that name beside the
// recording when the two were moved together.
std::string programOf(const TdfRecording& r, const std::string& file) {
  namespace fs = std::filesystem;
  std::error_code ec;
  if (r.programFile.empty() || fs::exists(r.programFile, ec)) return r.programFile;
  fs::path beside = fs::path(file).parent_path() / fs::path(r.programFile).filename();
  return fs::exists(beside, ec) ? beside.string() : r.programFile;
}

std::shared_ptr<const Scenario> recordingScenario(const std::string& file) {
  const TdfRecording r = readTdf(file);
  auto scenario = std::make_shared<Scenario>();
  scenario->name = "recording " + std::filesystem::path(file).filename().string();
  scenario->path = file;
  CpuSpec cpu;
  cpu.name = r.cpuName;
  cpu.kind = r.cpuValues[0];
  cpu.program = programOf(r, file);
  cpu.clockHz = static_cast<uint64_t>(r.clockHz);
  cpu.traceSourceId = r.cpuValues[3];
  DeviceSpec device;
  device.name = "recording";
  device.id = 1;
  device.kind = cpu.kind;
  device.nodes.push_back(NodeSpec{cpu.name, "", cpu.kind, cpu.program, {}});
  device.routes.push_back(RouteSpec{cpu.name, r.receiverName, ""});
  scenario->cpus.push_back(std::move(cpu));
  scenario->devices.push_back(std::move(device));
  return scenario;
}

class SimSessionManager final : public ISessionManager {
 public:
  ISession* openLiveSession(char* errorText, size_t size) override {
    auto scenario = SimWorld::instance().scenario();
    if (!scenario) {
      copyError(errorText, size, "No debug session: no scenario is active");
      return nullptr;
    }
    return new SimSession(std::move(scenario), false);
  }
  // A recording's session: one device with the recorded CPU, its program
  // and its trace route. No scenario needs to be active.
  ISession* openFileSession(const char* fileName, char* errorText, size_t size) override {
    try {
      return new SimSession(recordingScenario(fileName != nullptr ? fileName : ""), true);
    } catch (const std::exception& e) {
      copyError(errorText, size, e.what());
      return nullptr;
    }
  }
  void releaseSession(ISession* session) override { delete static_cast<SimSession*>(session); }
};

}  // namespace

ISessionManager* sessionManager() {
  static SimSessionManager manager;
  return &manager;
}

}  // namespace OstrandSim
