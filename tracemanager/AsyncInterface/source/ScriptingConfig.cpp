#include "AsyncInterface/source/ScriptingConfig.hpp"

#include <stdexcept>

#include "json_interface/JsonArgs.hpp"
#include "json_interface/JsonText.hpp"
#include "source_utilities/uString.hpp"

namespace AsyncInterface::Scripting {

namespace {

// A value that is not an object lacks every member.
const Json::Value& required(const Json::Value& object, const char* name) {
  if (!object.isObject() || !object.isMember(name)) {
    throw std::runtime_error(std::string("No member '") + name + "\"");
  }
  return object[name];
}

// Null, or an empty array or object, counts as absent.
const Json::Value* optionalMember(const Json::Value& object, const char* name) {
  if (!object.isObject() || !object.isMember(name)) return nullptr;
  const Json::Value& value = object[name];
  if (value.isNull() || ((value.isArray() || value.isObject()) && value.empty())) return nullptr;
  return &value;
}

// An array decodes element by element; anything else as one element.
template <typename T, typename Decode>
std::vector<T> decodeVector(const Json::Value& value, Decode decode) {
  std::vector<T> out;
  if (value.isArray()) {
    for (const auto& element : value) out.push_back(decode(element));
  } else {
    out.push_back(decode(value));
  }
  return out;
}

PropertyValue decodeValue(const Json::Value& value) {
  try {
    if (value.isBool()) return value.asBool();
    if (value.isNumeric()) return JSONInterface::toUInt64(value);
    if (value.isString()) return value.asString();
    throw std::runtime_error("Failed to decode to any of the variant's allowed types");
  } catch (const std::runtime_error&) {
    throw std::runtime_error("Cannot convert " + JSONInterface::compactText(value) +
                             " to a variant of the allowed types");
  }
}

Property decodeProperty(const Json::Value& value) {
  Property p;
  p.name = JSONInterface::toString(required(value, "name"));
  p.type = JSONInterface::toString(required(value, "type"));
  p.value = decodeValue(required(value, "value"));
  if (const Json::Value* sub = optionalMember(value, "sub_properties")) {
    p.sub_properties = decodeVector<Property>(*sub, decodeProperty);
  }
  return p;
}

PropertyGroup decodeGroup(const Json::Value& value) {
  PropertyGroup g;
  g.name = JSONInterface::toString(required(value, "name"));
  g.sub_properties = decodeVector<Property>(required(value, "sub_properties"), decodeProperty);
  return g;
}

TargetConfig decodeTarget(const Json::Value& value) {
  TargetConfig c;
  c.enable = JSONInterface::toBool(required(value, "enable"));
  if (const Json::Value* groups = optionalMember(value, "opProp")) {
    c.opProp = decodeVector<PropertyGroup>(*groups, decodeGroup);
  }
  return c;
}

Json::Value encodeValue(const PropertyValue& value) {
  if (const bool* b = std::get_if<bool>(&value)) return Json::Value(*b);
  if (const uint64_t* n = std::get_if<uint64_t>(&value)) return Json::Value(Json::UInt64(*n));
  return Json::Value(std::get<std::string>(value));
}

Json::Value encodeProperty(const Property& p) {
  Json::Value out(Json::objectValue);
  out["name"] = p.name;
  out["type"] = p.type;
  out["value"] = encodeValue(p.value);
  if (p.sub_properties) {
    Json::Value subs(Json::arrayValue);
    for (const auto& s : *p.sub_properties) subs.append(encodeProperty(s));
    out["sub_properties"] = subs;
  }
  return out;
}

}  // namespace

TraceConfig decodeTraceConfig(const Json::Value& value) {
  TraceConfig config;
  if (value.isObject()) {
    for (const auto& key : value.getMemberNames()) config[key] = decodeTarget(value[key]);
    return config;
  }
  if (!value.isArray() && !value.isNull()) {
    // "kind=json" as a single entry; the right part is decoded as a JSON
    // string, which can never hold the required "enable".
    std::string text = JSONInterface::toString(value);
    std::string left, right;
    if (QX_NLV::uString::split(text.c_str(), left, right, "=") == 2) {
      config[left] = decodeTarget(Json::Value(right));
      return config;
    }
  }
  throw std::runtime_error("Cannot convert " + JSONInterface::compactText(value) + " to a map");
}

Json::Value encodeTraceConfig(const TraceConfig& config) {
  Json::Value session(Json::objectValue);
  for (const auto& [kind, target] : config) {
    Json::Value entry(Json::objectValue);
    entry["enable"] = target.enable;
    if (target.opProp) {
      Json::Value groups(Json::arrayValue);
      for (const auto& g : *target.opProp) {
        Json::Value group(Json::objectValue);
        group["name"] = g.name;
        Json::Value subs(Json::arrayValue);
        for (const auto& p : g.sub_properties) subs.append(encodeProperty(p));
        group["sub_properties"] = subs;
        groups.append(group);
      }
      entry["opProp"] = groups;
    }
    session[kind] = entry;
  }
  Json::Value root(Json::objectValue);
  root["traceSession"] = session;
  return root;
}

}  // namespace AsyncInterface::Scripting
