#include "wattline/WLStateGraph.hpp"

#include <algorithm>

#include "source_utilities/Logger.hpp"
#include "wattline/WLStateDecoders.hpp"

namespace VSKTspServer {

namespace {

struct StyleRow {
  const char* name;
  const char* opacity;
  const char* color;
};

// The fixed look of the graph: rows named after the modes that firmware
// commonly reports, in the order the viewer lists them.
constexpr StyleRow kStyleRows[] = {
    {"None", "0.0", "#000000"},      {"On", "1.0", "#0080ff"},        {"Off", "1.0", "#404040"},
    {"L0", "0.0", "#202020"},        {"L1", "1.0", "#202020"},        {"L1.0", "1.0", "#c00000"},
    {"L1.1", "1.0", "#f00000"},      {"L1.2", "1.0", "#e09020"},      {"L1.2.0", "1.0", "#00c000"},
    {"L1.2.1", "1.0", "#ffa800"},    {"L1.2.2", "1.0", "#ffff00"},    {"L1.2.3", "1.0", "#a8ff00"},
    {"L1.2.4", "1.0", "#00ffa8"},    {"L1.2.5", "1.0", "#00a8ff"},    {"L1.2.6", "1.0", "#00ffff"},
    {"L1.2.7", "1.0", "#0000ff"},    {"Unknown", "1.0", "#0080ff"},   {"Active", "1.0", "#f00000"},
    {"Standby", "1.0", "#ffff00"},   {"Sleep", "1.0", "#00ffa8"},     {"Stop", "1.0", "#0000ff"},
    {"DeepSleep", "1.0", "#0000ff"}, {"DeepSleep2", "1.0", "#0000ff"}, {"LPM", "1.0", "#e09020"},
    {"LPM0", "1.0", "#ffa800"},      {"LPM1", "1.0", "#ffff00"},      {"LPM2", "1.0", "#a8ff00"},
    {"LPM3", "1.0", "#00ffa8"},      {"LPM4", "1.0", "#00a8ff"},      {"LPM35", "1.0", "#00ffff"},
    {"LPM45", "1.0", "#0000ff"},     {"Idle", "1.0", "#ffa800"},      {"RxWait", "1.0", "#ffff00"},
    {"Tx", "1.0", "#a8ff00"},        {"Rx", "1.0", "#00ffa8"},        {"SynthAct", "1.0", "#00a8ff"},
};
static_assert(std::size(kStyleRows) == 36);

// The style of a mode that is on: its name behind the last ".".
std::string modeStyle(const std::string& name) {
  const size_t dot = name.rfind('.');
  return dot == std::string::npos ? name : name.substr(dot + 1);
}

uint64_t clampTime(int64_t t) { return t < 0 ? 0 : static_cast<uint64_t>(t); }

// Levels of a dotted state name that become levels of the tree.
constexpr std::ptrdiff_t kMaxNameLevels = 32;

}  // namespace

int32_t intermediateNodeId(const std::string& name) {
  uint64_t hash = 0xCBF29CE484222325ull;
  for (unsigned char c : name) {
    hash ^= c;
    hash *= 0x100000001B3ull;
  }
  return static_cast<int32_t>(static_cast<uint32_t>(hash) + 100000u);
}

// ---- StateTreeNode -----------------------------------------------------------

StateTreeNode* StateTreeNode::find(const std::string& fullName) {
  if (auto it = children.find(fullName); it != children.end()) return it->second.get();
  for (auto& [key, child] : children) {
    if (StateTreeNode* found = child->find(fullName)) return found;
  }
  return nullptr;
}

StateTreeNode* StateTreeNode::add(int32_t newId, const std::string& fullName, std::string newLabel) {
  if (StateTreeNode* existing = find(fullName)) return existing;
  std::string relative = fullName;
  std::string prefix;
  if (fullName.size() > name.size() + 1 && fullName.compare(0, name.size(), name) == 0 &&
      fullName[name.size()] == '.') {
    prefix = name + ".";
    relative = fullName.substr(prefix.size());
  }
  // Names come from the capture's state description, which may hold any
  // number of dots; the walks of the tree recurse by level, so past
  // kMaxNameLevels the rest of a name is one leaf. A name that ends in a
  // dot is a leaf too: splitting it would make the same node again below
  // itself, for ever.
  std::ptrdiff_t level = 0;
  for (const StateTreeNode* up = parent; up != nullptr; up = up->parent) ++level;
  size_t dot = level >= kMaxNameLevels ? std::string::npos : relative.find('.');
  if (dot + 1 == relative.size()) dot = std::string::npos;
  if (dot == std::string::npos) {
    if (newLabel.empty()) newLabel = relative;
    auto node = std::make_unique<StateTreeNode>(newId, fullName, std::move(newLabel), this);
    StateTreeNode* made = node.get();
    childrenById[newId] = fullName;
    children[fullName] = std::move(node);
    return made;
  }
  const std::string token = relative.substr(0, dot);
  const std::string middleName = prefix + token;
  StateTreeNode* middle = find(middleName);
  if (middle == nullptr) {
    const int32_t middleId = intermediateNodeId(middleName);
    auto node = std::make_unique<StateTreeNode>(middleId, middleName, token, this);
    middle = node.get();
    childrenById[middleId] = middleName;
    children[middleName] = std::move(node);
  }
  return middle->add(newId, fullName, std::move(newLabel));
}

void StateTreeNode::clearChildren() {
  children.clear();
  childrenById.clear();
}

// ---- WLStateGraph --------------------------------------------------------------

WLStateGraph::WLStateGraph(WLDataNode* node, nlohmann::json description)
    : description_(std::move(description)) {
  init(node);
}

void WLStateGraph::init(WLDataNode* node) {
  QX_TRACE_FUNCTION("VSKTspServer::WLStateGraph::init");
  node_ = node;
  styles_.clear();
  for (const StyleRow& row : kStyleRows) {
    styles_.push_back({{"style-group", ""},
                       {"style-name", row.name},
                       {"height", "0.5"},
                       {"opacity", row.opacity},
                       {"background-color", row.color}});
  }
  root_.states.clear();
  root_.forEachDescendant([](StateTreeNode& n) { n.states.clear(); });
}

StateTreeNode* WLStateGraph::powerModeNode() {
  auto it = root_.children.find(powerModeRoot_);
  return it == root_.children.end() ? nullptr : it->second.get();
}

StateTreeNode* WLStateGraph::peripheralNode() {
  auto it = root_.children.find(peripheralRoot_);
  return it == root_.children.end() ? nullptr : it->second.get();
}

int64_t WLStateGraph::timeOf(uint64_t record) const {
  if (node_ == nullptr || node_->times.empty()) return 0;
  return static_cast<int64_t>(node_->times[std::min<uint64_t>(record, node_->times.size() - 1)]);
}

TimeGraphTreeResponse WLStateGraph::getTree(int64_t, int64_t) {
  QX_TRACE_FUNCTION("VSKTspServer::WLStateGraph::getTree");
  root_.clearChildren();
  StateTreeNode* modes = root_.add(kPowerModeId, powerModeRoot_, powerModeRoot_);
  StateTreeNode* peripherals = root_.add(kPeripheralId, peripheralRoot_, peripheralRoot_);
  const WLDataNode::DSR_Base* dsr = node_ != nullptr ? node_->dsr.get() : nullptr;
  if (dsr != nullptr) {
    for (size_t k = 0; k < dsr->powerModes.size(); ++k) {
      modes->add(static_cast<int32_t>(k + 1), dsr->powerModes[k].name, "");
    }
    for (size_t k = 0; k < dsr->peripherals.size(); ++k) {
      peripherals->add(static_cast<int32_t>(k + 1001), dsr->peripherals[k].name, "");
    }
  }

  TimeGraphTreeResponse response;
  const bool hasTimes = node_ != nullptr && !node_->times.empty();
  const int64_t first = hasTimes ? static_cast<int64_t>(node_->times.front()) : 0;
  const int64_t last = hasTimes ? static_cast<int64_t>(node_->times.back()) : 0;
  auto entryOf = [&](const StateTreeNode& n) {
    TimeGraphEntry e;
    e.id = n.id;
    e.parentId = n.parent != nullptr ? n.parent->id : -1;
    e.labels = {n.label};
    e.hasData = true;
    e.start = first;
    e.end = last;
    e.style.parentKey = "L0";
    response.model.entries.push_back(std::move(e));
  };
  for (StateTreeNode* top : {modes, peripherals}) {
    entryOf(*top);
    top->forEachDescendant(entryOf);
  }
  response.status = kStatusCompleted;
  return response;
}

void WLStateGraph::walk(const std::vector<uint64_t>& c, const std::vector<bool>& b, uint64_t first,
                        uint64_t last, int64_t requestEnd, const std::string& onStyle,
                        std::vector<TimeGraphState>& out) const {
  if (c.empty() || b.size() < c.size()) return;
  const uint64_t a = nearestIndex(c, first);
  const uint64_t z = nearestIndex(c, last);
  bool current = b[a];
  uint64_t from = a;
  for (uint64_t i = a + 1; i <= z + 1; ++i) {
    const bool lastSpan = i == z + 1;
    const int64_t end = lastSpan ? requestEnd : timeOf(c[i]);
    if (!lastSpan && b[i] == current) continue;
    TimeGraphState state;
    state.start = timeOf(c[from]);
    state.end = end;
    state.style.parentKey = current ? onStyle : "None";
    out.push_back(std::move(state));
    if (lastSpan) break;
    from = i;
    current = b[i];
  }
}

StatesResponse WLStateGraph::getStates(TimeRange range, std::vector<int32_t>) {
  QX_TRACE_FUNCTION("VSKTspServer::WLStateGraph::getStates");
  StatesResponse response;
  StateTreeNode* modes = powerModeNode();
  if (node_ == nullptr || modes == nullptr) {
    // Before the first getTree there are no rows to fill.
    response.status = kStatusCompleted;
    return response;
  }
  const int64_t requestEnd = std::max<int64_t>(range.end, 0);
  const uint64_t first = node_->indexOfTime(clampTime(range.start));
  const uint64_t last = node_->indexOfTime(clampTime(range.end));
  if (first >= last) return response;

  const WLDataNode::DSR_Base* dsr = node_->dsr.get();
  auto& rows = response.model.rows;
  if (dsr != nullptr) {
    for (const auto& mode : dsr->powerModes) {
      if (StateTreeNode* n = modes->find(mode.name)) n->states.clear();
    }
    for (size_t k = 0; k < dsr->powerModes.size() && k < dsr->modeChanges.size(); ++k) {
      if (dsr->modeChanges[k].empty() || k >= dsr->modeBits.size()) continue;
      StateTreeNode* n = modes->find(dsr->powerModes[k].name);
      if (n == nullptr) continue;
      walk(dsr->modeChanges[k], dsr->modeBits[k], first, last, requestEnd,
           modeStyle(dsr->powerModes[k].name), n->states);
    }
    for (const auto& mode : dsr->powerModes) {
      if (StateTreeNode* n = modes->find(mode.name)) rows.push_back({n->id, n->states});
    }
  }
  rows.push_back({kPeripheralId, {}});
  if (dsr != nullptr) {
    for (size_t k = 0; k < dsr->peripherals.size(); ++k) {
      TimeGraphRow row;
      row.entryId = static_cast<int64_t>(k + 1001);
      if (k < dsr->peripheralChanges.size() && k < dsr->peripheralBits.size()) {
        walk(dsr->peripheralChanges[k], dsr->peripheralBits[k], first, last, requestEnd, "On",
             row.states);
      }
      rows.push_back(std::move(row));
    }
  }
  response.status = kStatusCompleted;
  return response;
}

ArrowsResponse WLStateGraph::getArrows(TimeRange) {
  QX_TRACE_FUNCTION("VSKTspServer::WLStateGraph::getArrows");
  ArrowsResponse response;
  response.status = kStatusCompleted;
  StateTreeNode* modes = powerModeNode();
  if (node_ == nullptr || node_->dsr == nullptr || modes == nullptr) return response;
  const auto& history = node_->dsr->stateHistory;
  auto walkList = [&](const std::vector<StateEntry>& list, StateTreeNode& n) {
    int64_t previous = -1;
    for (const StateEntry& entry : list) {
      StateTreeNode* m = n.find(entry.name);
      if (m == nullptr) continue;
      const int64_t t = timeOf(entry.record);
      TimeGraphArrow arrow;
      arrow.sourceId = previous;
      arrow.targetId = m->id;
      arrow.start = t;
      arrow.end = t;
      response.model.push_back(std::move(arrow));
      previous = m->id;
    }
  };
  if (history.size() == 1) {
    walkList(history.begin()->second, *modes);
  } else {
    modes->forEachDescendant([&](StateTreeNode& n) {
      if (auto it = history.find(n.name); it != history.end()) walkList(it->second, n);
    });
  }
  return response;
}

TooltipResponse WLStateGraph::getTooltip(TooltipRequest) {
  TooltipResponse response;
  response.status = kStatusCompleted;
  return response;
}

StylesResponse WLStateGraph::getStyles(std::string) {
  QX_TRACE_FUNCTION("VSKTspServer::WLStateGraph::getStyles");
  StylesResponse response;
  for (const auto& row : styles_) {
    auto name = row.find("style-name");
    if (name == row.end()) continue;
    response.model.styles[name->second] = OutputElementStyle{"", row};
  }
  if (description_.is_object()) {
    auto model = description_.find("OutputStyleModel");
    if (model != description_.end() && !model->is_null()) {
      // A description with its own styles replaces the whole table.
      const nlohmann::json styles =
          model->is_object() && model->contains("styles") ? (*model)["styles"] : nlohmann::json();
      const auto members = styles.get<std::map<std::string, nlohmann::json>>();
      response.model.styles.clear();
      for (const auto& [key, value] : members) {
        response.model.styles[key] = value.get<OutputElementStyle>();
      }
    }
  }
  response.status = kStatusCompleted;
  return response;
}

}  // namespace VSKTspServer
