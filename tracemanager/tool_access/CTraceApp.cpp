#include "tool_access/CTraceApp.hpp"

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

#include "hemlock/hemlockErrorIF.hpp"
#include "source_utilities/Logger.hpp"
#include "source_utilities/uDll.hpp"
#include "tool_access/CTRACE.hpp"
#include "tool_access/CloudTraceEventHandler.hpp"

using Qx::Nlv::Hemlock::hemlockErrorIF;
using Qx::Nlv::Trace::IChannelFoundry;
using Qx::Nlv::Trace::IChannelServer;

namespace CTraceApp {

namespace {

struct State {
  // The library stays loaded until the process ends (it is pinned): the
  // channel server's threads may still call into it.
  QX_NLV::uDll* foundryModule = nullptr;
  IChannelFoundry* foundry = nullptr;
  // Set for a foundry given by useFoundry instead of the library's export.
  DestroyChannelFoundry_t destroyGiven = nullptr;
  IChannelServer* channelServer = nullptr;
  // Made once per process: a channel server may hold it registered beyond
  // the life of one CloudHemlock, so a later TraceInit only re-aims it.
  CloudTraceEventHandler* eventHandler = nullptr;
  TraceTable traceTable{};
};

// Never destroyed, like the library it points into: functions here may be
// called during static destruction. It lives in static storage rather than
// on the heap, and releaseAtUnload frees what it points to.
State& state() {
  alignas(State) static unsigned char storage[sizeof(State)];
  static State* instance = new (storage) State();
  return *instance;
}

void reportFailure(const char* text) {
  std::fprintf(stderr, "%s\n", text);
  QX_LOG_ERROR("%s", text);
}

}  // namespace

bool TraceInit(const std::string& directory, CloudHemlockNotificationIF* listener) {
  Logger::bootstrap();
  QX_LOG_MESSAGE("CTraceApp: TraceInit()");
  State& s = state();
  if (s.eventHandler == nullptr) {
    s.eventHandler = new CloudTraceEventHandler(listener, std::make_unique<QX_NLV::uMutex>());
  } else {
    s.eventHandler->setNotifications(listener);
  }
  if (s.foundryModule != nullptr) return true;
  try {
    auto* module = new QX_NLV::uDll();
    if (!module->FindAndLoad((directory + "ChannelFoundry.dll").c_str(), 0)) {
      delete module;
      reportFailure("CTraceApp: Couldn't load ChannelFoundry.dll!");
      return false;
    }
    module->pin();
    s.foundryModule = module;
    s.traceTable.fill(nullptr);
    if (s.foundry == nullptr) CreateChannelFoundry();
    getChannelServer();
    return true;
  } catch (const hemlockErrorIF& e) {
    std::string text = std::string("CTraceApp: ") + e.GetErrorText();
    reportFailure(text.c_str());
    return false;
  }
}

void CreateChannelFoundry() {
  State& s = state();
  if (s.foundryModule == nullptr) return;
  try {
    auto create =
        reinterpret_cast<CreateChannelFoundry_t>(s.foundryModule->symbol("CreateChannelFoundry"));
    s.foundry = create != nullptr ? create() : nullptr;
    if (s.foundry == nullptr) {
      std::fprintf(stderr, "CTraceApp: Couldn't create ChannelFoundry instance!\n");
      QX_LOG_ERROR("CTraceApp: CreateChannelFoundry(): Couldn't create ChannelFoundry instance!");
    }
  } catch (const hemlockErrorIF& e) {
    s.foundry = nullptr;
    QX_LOG_ERROR("CTraceApp: CreateChannelFoundry(): %s", e.GetErrorText());
  } catch (...) {
    s.foundry = nullptr;
    QX_LOG_ERROR("CTraceApp: CreateChannelFoundry(): Unexpected exception - caught possible crash!");
  }
}

void DestroyChannelFoundry() {
  State& s = state();
  if (s.foundry == nullptr) return;
  try {
    if (s.destroyGiven != nullptr) {
      s.destroyGiven(s.foundry);
    } else if (s.foundryModule != nullptr) {
      auto destroy = reinterpret_cast<DestroyChannelFoundry_t>(
          s.foundryModule->symbol("DestroyChannelFoundry"));
      if (destroy != nullptr) destroy(s.foundry);
    }
  } catch (const hemlockErrorIF& e) {
    QX_LOG_ERROR("CTraceApp: DestroyChannelFoundry(): %s", e.GetErrorText());
  } catch (...) {
    QX_LOG_ERROR("CTraceApp: DestroyChannelFoundry(): Unexpected exception");
  }
  s.foundry = nullptr;
  s.destroyGiven = nullptr;
}

IChannelFoundry* foundry() { return state().foundry; }

IChannelFoundry* obtainFoundry() {
  State& s = state();
  if (s.foundry == nullptr) CreateChannelFoundry();
  return s.foundry;
}

IChannelServer* getChannelServer() {
  State& s = state();
  if (s.channelServer != nullptr) return s.channelServer;
  Logger::bootstrap();
  if (obtainFoundry() == nullptr) return nullptr;
  try {
    s.foundry->CreateChannelServer(s.channelServer, 1);
  } catch (const hemlockErrorIF&) {
    s.channelServer = nullptr;
    QX_LOG_MESSAGE(
        "CTraceApp: GetChannelServer(): ChannelServer unavailable. Operating in stand-alone "
        "mode.");
  } catch (...) {
    s.channelServer = nullptr;
    QX_LOG_ERROR(
        "CTraceApp: GetChannelServer(): Unexpected exception - caught possible crash on "
        "channelFoundry->CreateChannelServer()!");
  }
  if (s.channelServer != nullptr) {
    try {
      s.channelServer->RegisterForEvents(s.eventHandler);
    } catch (const hemlockErrorIF& e) {
      QX_LOG_ERROR("CTraceApp: GetChannelServer(): RegisterForEvents(): %s", e.GetErrorText());
    } catch (...) {
      QX_LOG_ERROR("CTraceApp: GetChannelServer(): RegisterForEvents(): Unexpected exception");
    }
  }
  return s.channelServer;
}

void DestroyChannelServer() {
  State& s = state();
  if (s.channelServer == nullptr) return;
  try {
    if (s.foundry != nullptr) s.foundry->DestroyChannelServer(s.channelServer, 0);
  } catch (const hemlockErrorIF& e) {
    QX_LOG_ERROR("CTraceApp: DestroyChannelServer(): %s", e.GetErrorText());
  } catch (...) {
    QX_LOG_ERROR("CTraceApp: DestroyChannelServer(): Unexpected exception");
  }
  s.channelServer = nullptr;
}

IChannelServer* channelServer() { return state().channelServer; }

bool GetReceiverName(const char* cpu, std::string& name) {
  IChannelServer* server = state().channelServer;
  if (server == nullptr || cpu == nullptr) return false;
  try {
    int32_t count = server->GetNumRcvrs();
    for (int32_t i = 0; i < count; ++i) {
      const char* receiver = nullptr;
      const char* text = nullptr;
      Qx::Nlv::Xevt::NameList cpus;
      if (!server->getReceiver(i, receiver, text, cpus)) continue;
      for (uint32_t c = 0; c < cpus.count; ++c) {
        if (cpus.names[c] != nullptr && std::strcmp(cpus.names[c], cpu) == 0) {
          name = receiver != nullptr ? receiver : "";
          return true;
        }
      }
    }
  } catch (...) {
    QX_LOG_ERROR(
        "CTraceApp: GetReceiverName(): Unexpected exception - caught possible crash on "
        "channelServer->GetNumRcvrs()!");
  }
  return false;
}

CloudTraceEventHandler* eventHandler() { return state().eventHandler; }

TraceTable& traceTable() { return state().traceTable; }

int32_t freeSlot() {
  TraceTable& table = state().traceTable;
  for (size_t i = 0; i < table.size(); ++i) {
    if (table[i] == nullptr) return static_cast<int32_t>(i);
  }
  return -1;
}

void useFoundry(IChannelFoundry* given, DestroyChannelFoundry_t destroy) {
  State& s = state();
  s.foundry = given;
  s.destroyGiven = destroy;
}

void releaseAtUnload() {
  State& s = state();
  for (CTRACE*& slot : s.traceTable) {
    if (slot == nullptr) continue;
    slot->ShutdownDecoder();
    delete slot;
    slot = nullptr;
  }
  DestroyChannelServer();
  DestroyChannelFoundry();
  delete s.eventHandler;
  s.eventHandler = nullptr;
  delete s.foundryModule;  // pinned: the library itself stays
  s.foundryModule = nullptr;
}

}  // namespace CTraceApp
