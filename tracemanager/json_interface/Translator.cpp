#include "json_interface/Translator.hpp"

#include "AsyncInterface/source/CloudTrace.hpp"
#include "AsyncInterface/source/CommonRootObject.hpp"
#include "AsyncInterface/source/TraceScriptingRootObject.hpp"
#include "json_interface/JsonArgs.hpp"
#include "json_interface/JsonText.hpp"
#include "logging/LoggerFactory.hpp"
#include "source_utilities/Logger.hpp"
#include "source_utilities/hemlockError.hpp"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace JSONInterface {

namespace {
constexpr int kTrafficIn = 2;
constexpr int kTrafficOut = 3;

// The error of a message that is not an object has no id to echo.
Json::Value echoedId(const Json::Value& root) {
  return root.isObject() ? root["id"] : Json::Value();
}
}  // namespace

Translator::Translator(Sink sink) : sink_(std::move(sink)) {
  auto cloudTrace = std::make_shared<AsyncInterface::CloudTrace>();
  addRoot(cloudTrace);
  cloudTrace->registerCommands(*this);

  auto scripting = std::make_shared<AsyncInterface::Scripting::TraceScriptingRootObject>();
  addRoot(scripting);
  scripting->registerCommands(*this);

  auto common = std::make_shared<AsyncInterface::CommonRootObject>(this);
  addRoot(common);
  common->registerCommands(*this);
}

Translator::~Translator() {
  logTraffic(kTrafficIn, "~Translator()");
  // Cancelled continuations are dropped without running, so no reply leaves
  // for a command whose connection is going.
  for (auto& entry : pending_) entry.second.cancel();
  logTraffic(kTrafficOut, "~Translator()");
  roots_.clear();
}

std::optional<Json::Value> Translator::getErrorData(unsigned int, std::exception_ptr) {
  return std::nullopt;
}

void Translator::logTraffic(int kind, const char* text) {
  if (!Logging::LoggerFactory::IsCurrentInstanceEnabled()) return;
  if (auto* logger = Logging::LoggerFactory::Instance()) {
    logger->Write(kind == kTrafficIn ? inputContext_ : outputContext_, 41, 3, kind, text);
  }
}

void Translator::addCommand(const std::string& name, Handler handler) {
  commands_[name] = std::move(handler);
}

std::vector<std::string> Translator::commandNames() const {
  std::vector<std::string> names;
  names.reserve(commands_.size());
  for (const auto& entry : commands_) names.push_back(entry.first);
  return names;
}

void Translator::process(const std::string& text) {
  logTraffic(kTrafficIn, text.c_str());
  Json::Value root;
  try {
    Json::Reader reader(Json::Features::strictMode());
    if (!reader.parse(text, root, false)) {
      root = Json::Value();
      throw std::runtime_error("Failed to parse \"" + text + "\"");
    }
    dispatch(root, text);
  } catch (const std::exception& e) {
    sendError(e, echoedId(root));
  } catch (const Qx::Nlv::Hemlock::hemlockErrorIF& e) {
    // A tool error should have been turned into a result by the tool layer;
    // if one gets here, the client still learns what the tool said.
    QX_LOG_ERROR("Translator: tool error escaped a command: %s", e.GetErrorText());
    sendError(std::runtime_error(e.GetErrorText()), echoedId(root));
  } catch (...) {
    // Not ours to understand, but the client gets an answer and the worker
    // goes on with the next message.
    QX_LOG_ERROR("Translator: exception of unknown type escaped a command");
    sendError(std::runtime_error("An internal error occurred"), echoedId(root));
  }
}

void Translator::dispatch(const Json::Value& root, const std::string& text) {
  if (!root.isObject()) {
    // An array passes the strict reader but holds neither a command nor a
    // cancel request.
    throw std::runtime_error("No operation specified: \"" + text + "\"");
  }
  const Json::Value& command = root["command"];
  if (command.isNull()) {
    const Json::Value& cancel = root["cancel"];
    if (cancel.isNull()) throw std::runtime_error("No operation specified: \"" + text + "\"");
    uint32_t id = cancel.asUInt();
    auto found = pending_.find(id);
    if (found != pending_.end()) {
      low::promise<void> child = found->second;
      pending_.erase(found);
      child.cancel();
    }
    return;
  }
  std::string name = command.asString();
  auto handler = commands_.find(name);
  if (handler == commands_.end()) throw std::runtime_error("Unknown command: \"" + name + "\"");
  const Json::Value& idValue = root["id"];
  unsigned int id = idValue.isNull() ? 0 : toUInt(idValue);
  handler->second(id, root);
}

void Translator::sendResponse(unsigned int id) {
  Json::Value reply(Json::objectValue);
  reply["response"] = id;
  std::string out = compactText(reply);
  std::lock_guard<std::mutex> guard(outputMutex_);
  logTraffic(kTrafficOut, out.c_str());
  if (sink_) sink_(out);
}

void Translator::sendResponse(unsigned int id, const Json::Value& data) {
  sendMessage(response, Json::Value(id), data);
}

void Translator::sendMessage(MessageKind kind, const Json::Value& key, const Json::Value& data) {
  const char* member = nullptr;
  switch (kind) {
    case response:
      member = "response";
      break;
    case error:
      member = "error";
      break;
    case event:
      member = "event";
      break;
    default:
      throw std::runtime_error("Unknown enum type");
  }
  Json::Value message(Json::objectValue);
  message[member] = key;
  message["data"] = data;
  std::string out = compactText(message);
  std::lock_guard<std::mutex> guard(outputMutex_);
  logTraffic(kTrafficOut, out.c_str());
  if (sink_) sink_(out);
}

void Translator::sendError(const std::exception& e, const Json::Value& id,
                           std::optional<Json::Value> extra) {
  Json::Value data = extra ? *extra : Json::Value(Json::objectValue);
  data["message"] = e.what();
  sendMessage(error, id, data);
}

void Translator::deferResponse(unsigned int id, const low::promise<void>& operation) {
  low::promise<void> child;
  operation.then(
      child,
      [this, id] {
        sendResponse(id);
        pending_.erase(id);
      },
      [this, id](std::exception_ptr failure) {
        auto extra = getErrorData(id, failure);
        try {
          std::rethrow_exception(failure);
        } catch (const std::exception& e) {
          sendError(e, Json::Value(id), extra);
        }
        pending_.erase(id);
      });
  pending_[id] = child;
  if (child.status() != low::promise<void>::pending) pending_.erase(id);
}

}  // namespace JSONInterface

#pragma GCC diagnostic pop
