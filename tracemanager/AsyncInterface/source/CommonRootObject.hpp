// AsyncInterface::CommonRootObject: the "listCommands" command.
// Worker thread only. Holds a plain pointer to its translator, which owns it.
#pragma once

namespace JSONInterface {
class Translator;
}

namespace AsyncInterface {

class CommonRootObject {
 public:
  explicit CommonRootObject(JSONInterface::Translator* translator) : translator(translator) {}
  void registerCommands(JSONInterface::Translator& target);

 private:
  JSONInterface::Translator* translator;
};

}  // namespace AsyncInterface
