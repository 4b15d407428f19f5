// TraceManagerConnection: the module's side of one host connection.
//
// send() copies the text and posts a task on the WorkQueue; it never parses
// and never waits on a command. release() unhooks the host, removes the
// connection from the module's list and destroys it before returning.
//
// What must stay true after release() returns: no text reaches the host from
// this connection, and no queued or running task touches freed memory.
// Tasks hold the translator weakly: a task still queued finds it gone and
// does nothing; a task already running keeps it alive to its end, and the
// translator is then destroyed on the worker. The host link is guarded by
// hostMutex, which the sink holds while it calls receive(), so release()
// cannot return in the middle of a receive() on another thread.
//
// Threads: send() from any host thread; create and release from one host
// thread at a time.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "json_interface/ModuleConnection.hpp"

namespace JSONInterface {
class Translator;
}

class TraceManagerConnection final : public JSONInterface::ExternalModule::ModuleConnection {
 public:
  // Builds the translator and with it every command root object.
  explicit TraceManagerConnection(HostConnection* host);
  ~TraceManagerConnection() override;

  void send(const char* message) override;
  void release() override;

  // The module's connections, in order of creation. Owned here.
  static std::vector<std::unique_ptr<TraceManagerConnection>>& all();

 private:
  struct HostLink {
    std::recursive_mutex hostMutex;  // guards host and every receive() call
    HostConnection* host = nullptr;
  };

  std::shared_ptr<HostLink> link_;
  std::shared_ptr<JSONInterface::Translator> translator_;
};
