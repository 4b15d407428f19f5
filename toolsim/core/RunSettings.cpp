#include "RunSettings.hpp"

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace OstrandSim {

namespace {

const PropNode* find(const std::vector<PropNode>& props, const std::string& name) {
  for (const PropNode& p : props) {
    if (p.name == name) return &p;
    if (const PropNode* inner = find(p.children, name)) return inner;
  }
  return nullptr;
}

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

bool boolOf(const std::vector<PropNode>& props, const std::string& name, bool fallback) {
  const PropNode* p = find(props, name);
  if (p == nullptr) return fallback;
  if (p->kind == PropNode::Kind::kBoolean) return p->flag;
  if (p->kind == PropNode::Kind::kString) return lower(p->text) == "true";
  return p->number != 0;
}

bool oneShotOf(const PropNode* type) {
  if (type == nullptr) return false;
  std::string t = lower(type->text);
  if (t == "circular") return false;
  if (t == "one-shot" || t == "one shot" || t == "oneshot" || t == "linear") return true;
  throw std::invalid_argument("Buffer type '" + type->text +
                              "' is not known; use 'Circular' or 'One-shot'");
}

std::optional<uint64_t> addressOf(const std::vector<PropNode>& props, const std::string& name) {
  const PropNode* p = find(props, name);
  if (p == nullptr || p->kind != PropNode::Kind::kAddress) return std::nullopt;
  return p->number;
}

}  // namespace

std::optional<uint32_t> parseBufferSize(const std::string& text) {
  size_t pos = 0;
  while (pos < text.size() && std::isspace(static_cast<unsigned char>(text[pos]))) ++pos;
  uint64_t value = 0;
  size_t digits = 0;
  while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos])) && digits < 10) {
    value = value * 10 + static_cast<uint64_t>(text[pos++] - '0');
    ++digits;
  }
  if (digits == 0) return std::nullopt;
  std::string unit = lower(text.substr(pos));
  unit.erase(std::remove_if(unit.begin(), unit.end(), [](unsigned char c) { return std::isspace(c); }),
             unit.end());
  uint64_t scale = 0;
  if (unit.empty() || unit == "b" || unit == "byte" || unit == "bytes") scale = 1;
  if (unit == "k" || unit == "kb" || unit == "kbyte" || unit == "kbytes") scale = 1024;
  if (unit == "m" || unit == "mb" || unit == "mbyte" || unit == "mbytes") scale = 1024 * 1024;
  if (scale == 0 || value * scale > (1ull << 30)) return std::nullopt;
  return static_cast<uint32_t>(value * scale);
}

void applyMainProperties(const std::string& receiver, const std::vector<PropNode>& props,
                         TraceSettings& trace, PowerSettings& power) {
  if (receiver == "WL") {
    power.enabled = true;
    power.statesWanted = boolOf(props, "WLplus", false);
    if (const PropNode* d = find(props, "Duration")) power.durationMs = d->number;
    if (const PropNode* d = find(props, "DataDir")) power.dataDir = d->text;
    return;
  }
  trace.receiver = receiver;
  const PropNode* size = find(props, "Buffer Size");
  if (size != nullptr) {
    const std::string shown = size->kind == PropNode::Kind::kNumber ? std::to_string(size->number) : size->text;
    auto bytes = parseBufferSize(shown);
    if (!bytes) {
      throw std::invalid_argument("Buffer Size '" + shown +
                                  "' is not a size such as '32 Bytes' or '4 KB'");
    }
    // The MTB's SRAM window is a power of two of 16 bytes or more; the ETB
    // needs room for the stream's synchronisation.
    if (receiver == "MTB" && (*bytes < 16 || (*bytes & (*bytes - 1)) != 0)) {
      throw std::invalid_argument("Buffer Size '" + shown +
                                  "' is not a size the MTB can have (a power of two, 16 bytes or more)");
    }
    if (receiver != "MTB" && *bytes < 64) {
      throw std::invalid_argument("Buffer Size '" + shown +
                                  "' is not a size the ETB can have (64 bytes or more)");
    }
    trace.bufferBytes = *bytes;
  } else {
    trace.bufferBytes = receiver == "MTB" ? kDefaultMtbBufferBytes : kDefaultEtbBufferBytes;
  }
  const PropNode* type = find(props, receiver == "MTB" ? "Trace Buffer Type" : "Buffer Type");
  trace.oneShot = oneShotOf(type);
  trace.traceOn = boolOf(props, "Trace On", true);
  if (const PropNode* w = find(props, "Watermark level")) trace.watermark = static_cast<uint32_t>(w->number);
  trace.stopAtWatermark = boolOf(props, "Stop at watermark", false);
  trace.hierarchical = boolOf(props, "Hierarchical Decode", true);
}

void applySubProperties(const std::vector<PropNode>& props, TraceSettings& trace) {
  const PropNode* actions = find(props, "Actions");
  if (actions == nullptr) return;
  const std::string& what = actions->text;
  if (what == "Trace On") return;  // trace from the start: nothing narrows it
  if (what == "Trace in Range") {
    auto start = addressOf(actions->children, "Start Location");
    auto end = addressOf(actions->children, "End Location");
    if (!start || !end) throw std::invalid_argument("A range needs a Start Location and an End Location");
    if (*end < *start) throw std::invalid_argument("A range must not end before it starts");
    trace.ranges.push_back({*start, *end});
    return;
  }
  if (what == "Start Trace" || what == "End Trace") {
    auto at = addressOf(actions->children, "Location");
    if (!at) throw std::invalid_argument("A trigger needs a Location");
    (what == "Start Trace" ? trace.startAddress : trace.stopAddress) = *at;
    return;
  }
  throw std::invalid_argument("Action '" + what + "' is not known");
}

}  // namespace OstrandSim
