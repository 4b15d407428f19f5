// JSONInterface::Translator: turns the text protocol between host and module
// into calls of named command handlers, and results back into text.
//
// One translator lives in each connection. It owns the command table, the
// table of pending (deferred) commands, the output stage (writer and sink)
// and the command root objects.
//
// Threads: process(), every handler and every continuation that a handler
// leaves run on the WorkQueue worker, so the two tables need no lock.
// sendMessage() and the send* helpers may be called from any thread (events
// come from tool threads); output is serialised by outputMutex_, which is
// held while the sink runs, so a sink must not wait for the module.
//
// Errors: every failure of a message becomes an error text to the host and
// never ends the connection.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "json_interface/promise.hpp"

namespace JSONInterface {

class Translator {
 public:
  using Sink = std::function<void(const std::string&)>;
  using Handler = std::function<void(unsigned int, const Json::Value&)>;
  enum MessageKind { response = 0, error = 1, event = 2 };

  // Builds the tables and the command root objects (which registers their
  // commands).
  explicit Translator(Sink sink);
  virtual ~Translator();
  Translator(const Translator&) = delete;
  Translator& operator=(const Translator&) = delete;

  // Extra members for the error reply of a deferred command; none here.
  virtual std::optional<Json::Value> getErrorData(unsigned int id, std::exception_ptr error);

  void process(const std::string& text);

  void sendResponse(unsigned int id);
  void sendResponse(unsigned int id, const Json::Value& data);
  void sendMessage(MessageKind kind, const Json::Value& key, const Json::Value& data);
  void sendError(const std::exception& error, const Json::Value& id,
                 std::optional<Json::Value> extra = std::nullopt);

  // Used by root objects while they register.
  void addCommand(const std::string& name, Handler handler);
  void addRoot(std::shared_ptr<void> root) { roots_.push_back(std::move(root)); }

  // The names in the command table, in the table's order.
  std::vector<std::string> commandNames() const;

  // Deferred commands: chains a child behind `operation` that answers `id`
  // when the operation settles, and keeps it in the pending table until then.
  void deferResponse(unsigned int id, const low::promise<void>& operation);
  size_t pendingCount() const { return pending_.size(); }

 private:
  void dispatch(const Json::Value& root, const std::string& text);
  void logTraffic(int kind, const char* text);

  std::unordered_map<std::string, Handler> commands_;
  std::unordered_map<uint32_t, low::promise<void>> pending_;  // worker thread only
  uint64_t outputContext_ = 0;
  Sink sink_;
  uint64_t inputContext_ = 0;
  std::mutex outputMutex_;  // guards the writer and calls of sink_
  std::vector<std::shared_ptr<void>> roots_;
};

}  // namespace JSONInterface
