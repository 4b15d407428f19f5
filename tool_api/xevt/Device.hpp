// A device of the debug session with its node tree and trace routes.
//
// A node is named by its string; the device's own name is the root node.
// Out strings point into the device and stay valid until the session that
// gave the device is released; the program file name is wide text.
// Threads: one caller at a time.
#pragma once

#include <cstdint>

namespace Qx::Nlv::Xevt {

class IRoute;

// A borrowed list of names.
struct NameList {
  const char* const* names = nullptr;
  uint32_t count = 0;
};

// A borrowed list of routes.
struct RouteList {
  IRoute* const* routes = nullptr;
  uint32_t count = 0;
};

// Linked node kind of a route's sink (the node that stores the trace).
inline constexpr uint32_t kLinkedSink = 2;

class IRoute {
 public:
  virtual void getSource(const char*& source) = 0;
  virtual void getReceiver(const char*& receiver) = 0;
  virtual void getLinkedNodes(uint32_t kind, NameList& nodes) = 0;

 protected:
  ~IRoute() = default;
};

class IDevice {
 public:
  virtual void getName(const char*& name) = 0;
  virtual uint32_t getId() = 0;
  // The name of a node type code ("cpu", "trace sink", ...).
  virtual void getTypeName(const char*& name, uint32_t code) = 0;
  virtual uint32_t childCount(const char* node) = 0;
  // Fills up to `count` child names of `node` into `names`.
  virtual void getChildren(const char* node, const char** names, uint32_t count) = 0;
  // The type code of a node; for a CPU node (and the device itself) this is
  // the device kind of the processor table.
  virtual uint32_t getTypeCode(const char* node) = 0;
  virtual void getRoutes(RouteList& routes) = 0;
  virtual void getSinkName(const char* node, const char*& sink) = 0;
  virtual void getLocalName(const char* node, const char*& localName) = 0;
  // The program file of a node, or null/empty if it has none.
  virtual void getOutFileName(const wchar_t*& file, const char* node) = 0;

 protected:
  ~IDevice() = default;
};

}  // namespace Qx::Nlv::Xevt
