// WLStateGraph: the "States" output of a power capture with state words.
//
// One row per power mode and per peripheral, drawn as adjacent on/off
// spans, and arrows that follow the order in which the modes came. The
// graph does no bit work: it reads the change lists that the state decoder
// left after a decode, and finds its place in each by binary search, so a
// request costs in the number of changes in view, never in records.
//
// The tree: root (-1, never sent) > "PowerMode" (0) with mode k at k + 1,
// and "Peripheral" (1000) with peripheral k at k + 1001. A dotted mode name
// ("CPU.Active") hangs below an intermediate node ("CPU") whose id is the
// 32-bit FNV-1a hash of its name + 100000. Rebuilt by getTree; getStates
// and getArrows before the first getTree, or without a decoder, answer
// empty.
//
// Threads: called under the server's request lock only (getTree and
// getStates change the object). Errors: getStyles throws a JSON type
// error when the description's `OutputStyleModel.styles` is not an object.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "experiments/VSKDataProvider.hpp"
#include "wattline/WLDataNode.hpp"

namespace VSKTspServer {

class StateTreeNode {
 public:
  StateTreeNode(int32_t id, std::string name, std::string label, StateTreeNode* parent)
      : id(id), name(std::move(name)), label(std::move(label)), parent(parent) {}

  // This node's children by name, then depth first in each child.
  StateTreeNode* find(const std::string& fullName);
  // Adds `fullName` below this node (see the .cpp); an existing node of
  // that name is returned unchanged.
  StateTreeNode* add(int32_t id, const std::string& fullName, std::string label);
  void clearChildren();
  // This node's descendants, depth first, each level in name order.
  template <typename Visit>
  void forEachDescendant(Visit&& visit) {
    for (auto& [key, child] : children) {
      visit(*child);
      child->forEachDescendant(visit);
    }
  }

  int32_t id;
  std::string name;
  std::string label;
  std::string style;
  std::vector<TimeGraphState> states;
  StateTreeNode* parent;
  std::map<std::string, std::unique_ptr<StateTreeNode>> children;
  std::map<int32_t, std::string> childrenById;
};

// The id of an intermediate node: FNV-1a 64 of `name`, low 32 bits, + 100000.
int32_t intermediateNodeId(const std::string& name);

class WLStateGraph : public VSKTimeGraphProvider {
 public:
  static constexpr int32_t kPowerModeId = 0;
  static constexpr int32_t kPeripheralId = 1000;

  WLStateGraph(WLDataNode* node, nlohmann::json description);

  // Stores the node, builds the style table anew and clears the states of
  // every node; called again after each reload.
  void init(WLDataNode* node);

  ArrowsResponse getArrows(TimeRange range) override;
  StatesResponse getStates(TimeRange range, std::vector<int32_t> requestedItems) override;
  TooltipResponse getTooltip(TooltipRequest request) override;
  TimeGraphTreeResponse getTree(int64_t start, int64_t end) override;
  StylesResponse getStyles(std::string parameters) override;

  const std::vector<std::map<std::string, std::string>>& styleTable() const { return styles_; }

 private:
  // The spans of one row from its change list `changes` (record indices)
  // and on/off bits, between records `first` and `last`.
  void walk(const std::vector<uint64_t>& changes, const std::vector<bool>& bits, uint64_t first,
            uint64_t last, int64_t requestEnd, const std::string& onStyle,
            std::vector<TimeGraphState>& out) const;
  int64_t timeOf(uint64_t record) const;
  StateTreeNode* powerModeNode();
  StateTreeNode* peripheralNode();

  const std::string powerModeRoot_ = "PowerMode";
  const std::string peripheralRoot_ = "Peripheral";
  WLDataNode* node_ = nullptr;
  nlohmann::json description_;
  StateTreeNode root_{-1, "WL++", "WL++", nullptr};
  std::vector<std::map<std::string, std::string>> styles_;
};

}  // namespace VSKTspServer
