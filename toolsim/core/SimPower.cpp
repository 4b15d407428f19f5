#include "SimPower.hpp"

#include <json/json.h>

#include <cstdlib>

#include "PowerRecorder.hpp"
#include "Scenario.hpp"

namespace OstrandSim {

std::string traceDataDir() {
  const char* set = std::getenv("QX_TRACE_DATA_DIR");
  if (set != nullptr && *set != '\0') return set;
  const char* home = std::getenv("USERPROFILE");
  if (home == nullptr || *home == '\0') home = std::getenv("HOME");
  return std::string(home != nullptr ? home : ".") + "/.QX-trace/data";
}

std::shared_ptr<PowerRecorder> makePowerProbe(const CpuSpec& spec) {
  PowerConfig config;
  config.sampleRateHz = spec.power.sampleRateHz;
  config.device = spec.name;
  config.model.runningMa = spec.power.runningMilliamps;
  config.model.sleepingMa = spec.power.sleepingMilliamps;
  config.model.supplyVolts = spec.power.volts;
  for (const PeripheralSpec& p : spec.power.peripherals) {
    config.model.peripherals.push_back({p.name, p.enableRegister, p.enableMask, p.milliamps, 0});
  }
  if (spec.jstate.isObject()) {
    Json::StreamWriterBuilder writer;
    config.jstate = nlohmann::json::parse(Json::writeString(writer, spec.jstate));
  }
  return std::make_shared<PowerRecorder>(std::move(config));
}

}  // namespace OstrandSim
