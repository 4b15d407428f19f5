// CloudHemlock: what the debug session holds. Devices with their node trees
// and routes, the state word description of a target, the CPUs and whether
// a target is connected.

#include <vector>

#include "hemlock/hemlockErrorIF.hpp"
#include "source_utilities/Logger.hpp"
#include "source_utilities/uEnvironment.hpp"
#include "tool_access/CTraceApp.hpp"
#include "tool_access/CloudHemlock.hpp"
#include "tool_access/CloudHemlockSession.hpp"

using Qx::Nlv::Hemlock::hemlockErrorIF;
using Qx::Nlv::Hemlock::ITargetAdapter;
using Qx::Nlv::Xevt::IDevice;
using Qx::Nlv::Xevt::ISession;
using Qx::Nlv::Xevt::ISessionManager;

namespace {

std::string text(const char* value) { return value != nullptr ? value : ""; }

// Wide text of the tool (UTF-32 on this platform) as UTF-8.
std::string toUtf8(const wchar_t* wide) {
  std::string out;
  if (wide == nullptr) return out;
  for (; *wide != 0; ++wide) {
    auto c = static_cast<uint32_t>(*wide);
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

}  // namespace

int32_t CloudHemlock::getDevices(bool live, const std::string& fileName, Json::Value& devices) {
  QX_TRACE_FUNCTION("CloudHemlock::getDevices");
  try {
    int32_t n = getNumCpu();
    sessionAvailable = n >= 1;
    if (live && n < 1) return fail(-1, "Debug session not available");
    if (!xevtAvailable) return fail(-1, "Cannot get devices, qx_xevt_setup_manager not available");
    ISessionManager* manager = xevtGetSessionManager();
    if (manager == nullptr) return fail(-2, "Cannot get session manager");
    char errorText[Qx::Nlv::Xevt::kErrorTextSize] = {0};
    ISession* session = nullptr;
    if (live) {
      session = manager->openLiveSession(errorText, sizeof errorText);
    } else {
      setupXmlDatabase();
      session = manager->openFileSession(fileName.c_str(), errorText, sizeof errorText);
    }
    if (session == nullptr) return fail(-2, errorText);
    CloudHemlockSession guard(manager, session);

    uint32_t count = session->deviceCount();
    std::vector<IDevice*> list(count, nullptr);
    if (count > 0) session->getDevices(list.data(), count);
    devices = Json::Value(Json::arrayValue);
    for (IDevice* device : list) {
      if (device == nullptr) return -3;
      Json::Value entry(Json::objectValue);
      fillDevice(device, entry);
      devices.append(entry);
    }
    if (needsTraceInit && count > 0) traceSetup();
    return 0;
  } catch (const hemlockErrorIF& e) {
    return fail(kToolError, e.GetErrorText());
  }
}

void CloudHemlock::fillDevice(IDevice* device, Json::Value& entry) {
  const char* name = nullptr;
  device->getName(name);
  uint32_t id = device->getId();
  entry["name"] = text(name);
  entry["id"] = id;
  Json::Value info(Json::objectValue);
  info["name"] = text(name);
  info["id"] = id;
  info["type"] = "device";
  info["children"] = Json::Value(Json::arrayValue);
  fillTree(device, name != nullptr ? name : "", info);

  info["trace_routes"] = Json::Value(Json::arrayValue);
  Qx::Nlv::Xevt::RouteList routes;
  device->getRoutes(routes);
  for (uint32_t i = 0; i < routes.count; ++i) {
    Qx::Nlv::Xevt::IRoute* route = routes.routes[i];
    if (route == nullptr) continue;
    const char* source = nullptr;
    const char* receiver = nullptr;
    route->getSource(source);
    route->getReceiver(receiver);
    Json::Value object(Json::objectValue);
    object["source"] = text(source);
    object["receiver"] = text(receiver);
    Qx::Nlv::Xevt::NameList linked;
    route->getLinkedNodes(Qx::Nlv::Xevt::kLinkedSink, linked);
    if (linked.count > 0 && linked.names[0] != nullptr) {
      const char* sink = nullptr;
      device->getSinkName(linked.names[0], sink);
      object["sink"] = text(sink);
    }
    info["trace_routes"].append(object);
  }
  entry["device_info"] = info;
}

void CloudHemlock::fillTree(IDevice* device, const char* node, Json::Value& parent) {
  uint32_t count = device->childCount(node);
  if (count == 0) return;
  std::vector<const char*> names(count, nullptr);
  device->getChildren(node, names.data(), count);
  for (const char* child : names) {
    if (child == nullptr) continue;
    Json::Value object(Json::objectValue);
    object["name"] = child;
    const char* localName = nullptr;
    device->getLocalName(child, localName);
    if (localName != nullptr && *localName != 0) object["local_name"] = localName;
    const char* typeName = nullptr;
    device->getTypeName(typeName, device->getTypeCode(child));
    object["type"] = text(typeName);
    const wchar_t* outFile = nullptr;
    device->getOutFileName(outFile, child);
    std::string outFileName = toUtf8(outFile);
    if (!outFileName.empty()) object["out_file_name"] = outFileName;
    object["children"] = Json::Value(Json::arrayValue);
    fillTree(device, child, object);
    parent["children"].append(object);
  }
}

void CloudHemlock::setupXmlDatabase() {
  if (xmlDbChecked) return;
  if (*QX_NLV::getEnvironment("HEMLOCK_XMLDB") == 0) {
    std::string database = basePath;
    QX_NLV::joinPath(database, "emulation/analysis/xmldb/xev_config");
    QX_NLV::setEnvironment("HEMLOCK_XMLDB", database.c_str());
    // Search lists on this platform are separated by ":".
    std::string bin = basePath;
    QX_NLV::joinPath(bin, "emulation/analysis/bin");
    std::string path = QX_NLV::getEnvironment("PATH");
    path += ":" + bin;
    QX_NLV::setEnvironment("PATH", path.c_str());
  }
  xmlDbChecked = true;
}

void CloudHemlock::traceSetup() {
  registerCleanup();
  if (CTraceApp::foundry() == nullptr) CTraceApp::CreateChannelFoundry();
  CTraceApp::getChannelServer();
  needsTraceInit = false;
}

int32_t CloudHemlock::getJState(const std::string& target, Json::Value& json) {
  QX_TRACE_FUNCTION("CloudHemlock::getJState");
  if (!sessionAvailable) return fail(-1, "Debug session not available");
  if (!xevtAvailable) return fail(-1, "qx_xevt_setup_manager not available");
  try {
    ISessionManager* manager = xevtGetSessionManager();
    if (manager == nullptr) return fail(-2, "Cannot get session manager");
    char errorText[Qx::Nlv::Xevt::kErrorTextSize] = {0};
    ISession* session = manager->openLiveSession(errorText, sizeof errorText);
    if (session == nullptr) return fail(-2, errorText);
    CloudHemlockSession guard(manager, session);
    Qx::Nlv::Xevt::ITargetObject* object =
        session->getTargetObject(target.c_str(), errorText, sizeof errorText);
    if (object == nullptr) return fail(-3, errorText);

    Qx::Nlv::Xevt::StateDescription description;
    object->getStateDescription(description, target.c_str());
    json = Json::Value(Json::objectValue);
    json["name"] = text(description.name);
    json["version"] = description.version;
    json["bitFields"] = Json::Value(Json::arrayValue);
    for (uint32_t f = 0; f < description.bitFieldCount; ++f) {
      const Qx::Nlv::Xevt::StateBitField& field = description.bitFields[f];
      Json::Value entry(Json::objectValue);
      entry["Name"] = text(field.name);
      entry["Description"] = text(field.description);
      entry["Start"] = field.start;
      entry["End"] = field.end;
      entry["Width"] = field.width;
      entry["Enums"] = Json::Value(Json::arrayValue);
      for (uint32_t e = 0; e < field.enumCount; ++e) {
        Json::Value choice(Json::objectValue);
        choice["Choice"] = text(field.enums[e].choice);
        choice["Description"] = text(field.enums[e].description);
        choice["Value"] = static_cast<Json::Int64>(field.enums[e].value);
        entry["Enums"].append(choice);
      }
      json["bitFields"].append(entry);
    }
    Qx::Nlv::Xevt::freeStateDescription(description);
    return 0;
  } catch (const hemlockErrorIF& e) {
    return fail(kToolError, e.GetErrorText());
  }
}

int32_t CloudHemlock::getCpuNames(std::vector<std::string>& list) {
  list.clear();
  try {
    int32_t n = getNumCpu();
    for (int32_t i = 0; i < n; ++i) {
      char buffer[256] = {0};
      getCpuName(i, buffer, sizeof buffer);
      buffer[sizeof buffer - 1] = 0;
      list.emplace_back(buffer);
    }
  } catch (const hemlockErrorIF& e) {
    QX_LOG_ERROR("CloudHemlock::getCpuNames: %s", e.GetErrorText());
  }
  return 0;
}

int32_t CloudHemlock::isTargetConnected(const std::string& target, bool& flag) {
  QX_TRACE_FUNCTION("CloudHemlock::isTargetConnected");
  try {
    ITargetAdapter* adapter = nullptr;
    newTargetAdapter(target.c_str(), &adapter);
    if (adapter == nullptr && getNumCpu() >= 1) {
      // A subordinate target is known only below the CPU it belongs to.
      char buffer[256] = {0};
      getCpuName(0, buffer, sizeof buffer);
      buffer[sizeof buffer - 1] = 0;
      ITargetAdapter* cpu = nullptr;
      newTargetAdapter(buffer, &cpu);
      if (cpu != nullptr) {
        try {
          adapter = cpu->findTarget(target.c_str());
        } catch (...) {
          adapter = nullptr;
        }
      }
    }
    if (adapter == nullptr) return fail(-1, "Failed to obtain target adapter for: " + target);
    flag = adapter->isConnected();
    return 0;
  } catch (const hemlockErrorIF& e) {
    return fail(kToolError, e.GetErrorText());
  }
}
