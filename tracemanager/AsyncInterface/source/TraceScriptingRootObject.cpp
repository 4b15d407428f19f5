#include "AsyncInterface/source/TraceScriptingRootObject.hpp"

#include <mutex>
#include <stdexcept>

#include "AsyncInterface/source/ScriptingConfig.hpp"
#include "cloud_trace/source/LocalOpManager.hpp"
#include "json_interface/JsonArgs.hpp"
#include "json_interface/JsonText.hpp"
#include "json_interface/Translator.hpp"

namespace AsyncInterface::Scripting {

using JSONInterface::argument;
using JSONInterface::toString;

namespace {
void requireConfigured(const Json::Value& result) {
  if (result.isNull() || ((result.isArray() || result.isObject()) && result.empty())) {
    throw std::runtime_error("Failed to configure trace.");
  }
}
}  // namespace

void TraceScriptingRootObject::registerCommands(JSONInterface::Translator& t) {
  t.addCommand("scripting.configureTrace", [this, &t](unsigned int id, const Json::Value& m) {
    TraceConfig config = decodeTraceConfig(argument(m, 1));
    std::string target = toString(argument(m, 0));
    std::string text = JSONInterface::compactText(encodeTraceConfig(config));
    requireConfigured(ConfigureTargetSession(target, text));
    t.sendResponse(id);
  });
  t.addCommand("scripting.configureTargetSession", [this, &t](unsigned int id, const Json::Value& m) {
    std::string configuration = toString(argument(m, 1));
    std::string target = toString(argument(m, 0));
    requireConfigured(ConfigureTargetSession(target, configuration));
    t.sendResponse(id);
  });
  t.addCommand("scripting.exportCaptureToCSV", [this, &t](unsigned int id, const Json::Value& m) {
    std::string path = toString(argument(m, 2));
    std::string capture = toString(argument(m, 1));
    std::string target = toString(argument(m, 0));
    LocalOpManager& m_ = manager();
    low::promise<void> operation;
    {
      std::lock_guard<std::mutex> guard(m_.commandMutex);
      operation = m_.exportCaptureToCSV(target, capture, path);
    }
    // Answered when the file is written, or with the export's error.
    t.deferResponse(id, operation);
  });
}

}  // namespace AsyncInterface::Scripting
