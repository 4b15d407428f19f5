// CloudHemlock's trace table operations: they find the record and its trace
// application and hand both to the readers (TraceTableReader,
// TdfTableReader, InstructionTraceDecoder).
#include <stdexcept>

#include "source_utilities/HostApis.hpp"
#include "source_utilities/Logger.hpp"
#include "tool_access/CTRACE.hpp"
#include "tool_access/CTraceApp.hpp"
#include "tool_access/CloudHemlock.hpp"
#include "tool_access/InstructionTraceDecoder.hpp"
#include "tool_access/TdfTableReader.hpp"
#include "xevt/Device.hpp"
#include "xevt/Session.hpp"

namespace {

CTRACE* traceOf(const CloudOperation& record) {
  if (record.traceAppIndex < 0 ||
      static_cast<size_t>(record.traceAppIndex) >= CTraceApp::kTraceTableSize)
    return nullptr;
  return CTraceApp::traceTable()[static_cast<size_t>(record.traceAppIndex)];
}

}  // namespace

void CloudHemlock::clearLookupCaches() { lookupCaches.clear(); }

int32_t CloudHemlock::readTraceColumnNames(CloudOperation& record) {
  CTRACE* trace = traceOf(record);
  if (trace == nullptr) return fail(-2, "Trace operation not created");
  if (::readTraceColumnNames(record, *trace, lastError) != 0)
    return fail(-3, "Failed to get column information");
  return 0;
}

int32_t CloudHemlock::setupColumnProcessing(uint32_t handle, const Json::Value& columns) {
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Operation not found");
  if (operation->traceAppIndex < 0) return fail(-2, "Trace operation not created");
  return ::setupColumnProcessing(*operation, columns, lastError);
}

int32_t CloudHemlock::fetchTraceData(uint32_t handle) {
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Operation not found");
  if (operation->traceAppIndex < 0) return fail(-2, "Trace operation not created");
  TraceReadContext context{*operation, traceOf(*operation), lookupCaches, lastError};
  return ::fetchTraceData(context);
}

int32_t CloudHemlock::getReducedGraphData(uint32_t handle, uint32_t /*ignored*/,
                                          Json::Value& rows) {
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Operation not found");
  if (operation->traceAppIndex < 0) return fail(-2, "Trace operation not created");
  TraceReadContext context{*operation, traceOf(*operation), lookupCaches, lastError};
  return ::getReducedGraphData(context, rows);
}

void CloudHemlock::attachTdfProgram(Qx::Nlv::Xevt::ISession* session, CloudOperation& operation) {
  if (session == nullptr || operation.filePath.empty() || operation.objectInfo ||
      session->deviceCount() != 1)
    return;
  Json::Value devices;
  if (getDevices(false, operation.filePath, devices) != 0 || devices.empty()) return;
  const Json::Value* node = findOutFileNode(devices[0]["device_info"]);
  if (node == nullptr) return;
  Qx::Nlv::Xevt::IDevice* device = nullptr;
  session->getDevices(&device, 1);
  if (device != nullptr) operation.deviceKind = device->getTypeCode((*node)["name"].asCString());
  const uint32_t id = processorId(operation.deviceKind);
  if (QX_NLV::symbolManagerApi() == nullptr) return;
  try {
    operation.objectInfo = std::make_shared<ObjectFileInfo>(id >> 22, (id >> 10) & 0xFFF);
    for (const auto& loaded :
         operation.objectInfo->loadFiles({(*node)["out_file_name"].asString()}))
      if (loaded.status != 0) operation.objectInfo.reset();
  } catch (const std::exception& e) {
    QX_LOG_ERROR("CloudHemlock::readTdfTable: %s", e.what());
    operation.objectInfo.reset();
  }
}

int32_t CloudHemlock::readTdfTable(Qx::Nlv::Xevt::ISession* session, uint32_t handle,
                                   Json::Value& /*out*/, Json::Value& data) {
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Operation not found");
  TraceReadContext context{*operation, traceOf(*operation), lookupCaches, lastError};
  return ::readTdfTable(context, data, [&] { attachTdfProgram(session, *operation); });
}

int32_t CloudHemlock::decodeMTBTrace(uint32_t handle, uint32_t& count, Json::Value& data,
                                     bool compact) {
  lookupCaches.clear();
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Operation not found");
  if (operation->traceAppIndex < 0) return fail(-2, "Trace operation not created");
  TraceReadContext context{*operation, traceOf(*operation), lookupCaches, lastError};
  return ::decodeMTBTrace(context, count, data, compact);
}

int32_t CloudHemlock::decodeETBTrace(uint32_t handle, uint32_t& count, Json::Value& data,
                                     VSKTspServer::EtbRecordStore& store) {
  lookupCaches.clear();
  CloudOperation* operation = record(handle);
  if (operation == nullptr) return fail(-1, "Operation not found");
  if (operation->traceAppIndex < 0) return fail(-2, "Trace operation not created");
  TraceReadContext context{*operation, traceOf(*operation), lookupCaches, lastError};
  return ::decodeETBTrace(context, count, data, store);
}
