#include "AsyncInterface/source/CommonRootObject.hpp"

#include "json_interface/Translator.hpp"

namespace AsyncInterface {

void CommonRootObject::registerCommands(JSONInterface::Translator& target) {
  target.addCommand("listCommands", [this](unsigned int id, const Json::Value&) {
    Json::Value names(Json::arrayValue);
    for (const auto& name : translator->commandNames()) names.append(name);
    Json::Value data(Json::objectValue);
    data["commands"] = names;
    translator->sendResponse(id, data);
  });
}

}  // namespace AsyncInterface
