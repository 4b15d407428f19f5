// Saving a CPU's last run as a .tdf recording: the header the module reads,
// the configuration of the run and the trace bytes the hardware held.
#include <json/json.h>

#include <filesystem>

#include "QemuRunner.hpp"
#include "SimWorld.hpp"
#include "TdfRecording.hpp"
#include "trace/CpuInfo.hpp"

namespace OstrandSim {

namespace {

Json::Value valueOf(const PropNode& n) {
  switch (n.kind) {
    case PropNode::Kind::kString: return n.text;
    case PropNode::Kind::kBoolean: return n.flag;
    case PropNode::Kind::kNumber: return Json::UInt64{n.number};
    case PropNode::Kind::kAddress: {
      char text[24];
      std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(n.number));
      return text;
    }
    case PropNode::Kind::kGroup: break;
  }
  return Json::Value(Json::objectValue);
}

// A property with children becomes an object of them, its own value under
// "value"; a leaf is its value.
Json::Value treeOf(const PropNode& n) {
  if (n.children.empty()) return valueOf(n);
  Json::Value o(Json::objectValue);
  if (n.kind != PropNode::Kind::kGroup) o["value"] = valueOf(n);
  for (const PropNode& c : n.children) o[c.name] = treeOf(c);
  return o;
}

// Every leaf by name at the top: the form the file decoder looks values up in.
void flatten(const PropNode& n, Json::Value& out) {
  if (n.children.empty()) {
    out[n.name] = valueOf(n);
    return;
  }
  for (const PropNode& c : n.children) flatten(c, out);
}

}  // namespace

std::string SimWorld::configurationOf(const std::string& cpu, const std::string& receiver,
                                      const TraceSettings& settings) const {
  Json::Value conf(Json::objectValue);
  Json::Value subs(Json::arrayValue);
  for (const auto& [id, entry] : operations_) {
    const OperationState& op = entry.second;
    if (entry.first != cpu || !op.enabled) continue;
    if (op.sub) {
      Json::Value tree(Json::objectValue);
      for (const PropNode& p : op.props) tree[p.name] = treeOf(p);
      subs.append(tree);
    } else if (op.receiver == receiver) {
      for (const PropNode& p : op.props) flatten(p, conf);
    }
  }
  if (!subs.empty()) conf["Sub-operations"] = subs;
  conf["Receiver"] = receiver;
  conf["Hierarchical Decode"] = settings.hierarchical;
  if (const CpuSpec* spec = scenario_ ? scenario_->findCpu(cpu) : nullptr) {
    conf["machine"] = spec->machine;
    conf["icountShift"] = QemuRunConfig{}.icountShift;
    conf["Timing Clock Frequency"] = Json::UInt64{spec->clockHz};
  }
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, conf);
}

int32_t SimWorld::saveRecording(const std::string& name, const std::string& file, std::string& error) {
  TdfRecording recording;
  std::shared_ptr<TraceRecorder> recorder;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    Cpu* cpu = findCpu(name, error);
    if (cpu == nullptr) return -1;
    if (cpu->running) {
      error = "CPU " + name + " is running; halt it before saving its run";
      return -3;
    }
    if (!cpu->recorder) {
      error = scenario_->traceReceiver(name).empty()
                  ? "CPU " + name + " has no trace receiver (MTB or ETB): there is no trace to save"
                  : "CPU " + name + " has no run to save yet; run it first";
      return -2;
    }
    recorder = cpu->recorder;
    const CpuSpec* spec = scenario_->findCpu(name);
    recording.cpuName = name;
    recording.cpuValues = {spec->kind, processorIdOf(spec->kind), 0, spec->traceSourceId, 0, 32, 0};
    recording.programFile = spec->program;
    recording.sourcePaths = std::filesystem::path(spec->program).parent_path().string();
    recording.clockHz = static_cast<double>(spec->clockHz);
    recording.configuration = cpu->runConfiguration;
  }
  recorder->saveTrace(recording);
  // The values the channel server gives for this CPU (GetTracingCpuInfo).
  const bool etb = recording.receiverName == "ETB";
  recording.cpuValues[2] = etb ? Qx::Nlv::Trace::kProtocolEtm4 : Qx::Nlv::Trace::kProtocolMtb;
  recording.cpuValues[6] = etb ? 1 : 0;
  if (file.empty()) {
    error = "No file name given for the recording";
    return -4;
  }
  try {
    writeTdf(file, recording);
  } catch (const std::exception& e) {
    error = e.what();
    return -4;
  }
  return 0;
}

}  // namespace OstrandSim
