// The typed response models of the trace protocol: a frame with `status`,
// `statusMessage` and `model`, and the shapes that go into `model`.
//
// Providers fill these records; the handlers turn them into text with
// nlohmann's compact dump, whose ordered objects put keys in ascending byte
// order. Every field is always written, empty or not. Writing a style may
// throw (see OutputElementStyle.hpp); nothing else does.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tsp_server/models/OutputElementStyle.hpp"

namespace VSKTspServer {

// The frame of every typed response. `status` is "COMPLETED" from a provider
// that answered, empty for annotations.
template <typename Model>
struct GenericResponse {
  std::string status;
  std::string statusMessage;
  Model model{};
};

template <typename Model>
void to_json(nlohmann::json& j, const GenericResponse<Model>& r) {
  j = nlohmann::json::object();
  j["model"] = r.model;
  j["status"] = r.status;
  j["statusMessage"] = r.statusMessage;
}

// ---- Shared parts ------------------------------------------------------

struct TreeHeader {
  std::string name;
  std::string tooltip;
};
void to_json(nlohmann::json& j, const TreeHeader& h);

struct TreeEntry {
  int64_t id = 0;
  int64_t parentId = 0;
  std::vector<std::string> labels;  // one text per header column
  bool hasData = false;
  OutputElementStyle style;
};
void to_json(nlohmann::json& j, const TreeEntry& e);

struct TimeGraphEntry : TreeEntry {
  int64_t start = 0;
  int64_t end = 0;
  std::map<std::string, std::vector<std::string>> metadata;
};
void to_json(nlohmann::json& j, const TimeGraphEntry& e);

struct TimeGraphState {
  int64_t start = 0;
  int64_t end = 0;
  std::string label;
  int32_t tags = 0;
  OutputElementStyle style;
};
void to_json(nlohmann::json& j, const TimeGraphState& s);

struct TimeGraphRow {
  int64_t entryId = 0;
  std::vector<TimeGraphState> states;
};
void to_json(nlohmann::json& j, const TimeGraphRow& r);

struct TimeGraphArrow {
  int64_t sourceId = 0;
  int64_t targetId = 0;
  int64_t start = 0;
  int64_t end = 0;
  OutputElementStyle style;
};
void to_json(nlohmann::json& j, const TimeGraphArrow& a);

struct TableColumn {
  int64_t id = 0;  // used in `columnIds`
  std::string name;
  std::string type;
  std::string description;
};
void to_json(nlohmann::json& j, const TableColumn& c);

struct TableCell {
  std::string content;
  int32_t tags = 0;
};
void to_json(nlohmann::json& j, const TableCell& c);

struct TableLine {
  int64_t index = 0;
  int64_t tags = 0;
  std::vector<TableCell> cells;
};
void to_json(nlohmann::json& j, const TableLine& l);

struct XYSeries {
  int64_t seriesId = 0;  // id of the tree entry
  std::string seriesName;
  OutputElementStyle style;
  std::vector<int64_t> xValues;
  std::vector<int64_t> yValues;  // integers, not floats
};
void to_json(nlohmann::json& j, const XYSeries& s);

struct Annotation {
  std::string type;
  int64_t time = 0;
  int64_t duration = 0;
  int64_t entryId = 0;
  std::string label;
  OutputElementStyle style;
};
void to_json(nlohmann::json& j, const Annotation& a);

struct TooltipEntry {
  std::string key;
  std::string value;
};
void to_json(nlohmann::json& j, const TooltipEntry& t);

// ---- Models of the typed responses -------------------------------------

struct AnnotationCategoriesModel {
  std::vector<std::string> annotationCategories;
};
void to_json(nlohmann::json& j, const AnnotationCategoriesModel& m);

struct AnnotationsModel {
  std::map<std::string, std::vector<Annotation>> annotations;
};
void to_json(nlohmann::json& j, const AnnotationsModel& m);

struct StylesModel {
  std::map<std::string, OutputElementStyle> styles;
};
void to_json(nlohmann::json& j, const StylesModel& m);

struct StatesModel {
  std::vector<TimeGraphRow> rows;
};
void to_json(nlohmann::json& j, const StatesModel& m);

struct TimeGraphTreeModel {
  std::vector<TimeGraphEntry> entries;
  std::vector<TreeHeader> headers;
};
void to_json(nlohmann::json& j, const TimeGraphTreeModel& m);

// `size` is the number of rows of the whole table, `lowIndex` the index of
// the first line returned.
struct TableLinesModel {
  int64_t size = 0;
  int64_t lowIndex = 0;
  std::vector<int64_t> columnIds;
  std::vector<TableLine> lines;
};
void to_json(nlohmann::json& j, const TableLinesModel& m);

struct XYTreeModel {
  std::vector<TreeEntry> entries;
  std::vector<TreeHeader> headers;
};
void to_json(nlohmann::json& j, const XYTreeModel& m);

struct XYModel {
  std::string title;
  std::vector<XYSeries> series;
};
void to_json(nlohmann::json& j, const XYModel& m);

using AnnotationCategoriesResponse = GenericResponse<AnnotationCategoriesModel>;
using AnnotationsResponse = GenericResponse<AnnotationsModel>;
using StylesResponse = GenericResponse<StylesModel>;
using ArrowsResponse = GenericResponse<std::vector<TimeGraphArrow>>;
using StatesResponse = GenericResponse<StatesModel>;
using TooltipResponse = GenericResponse<std::vector<TooltipEntry>>;
using TimeGraphTreeResponse = GenericResponse<TimeGraphTreeModel>;
using ColumnsResponse = GenericResponse<std::vector<TableColumn>>;
using TableLinesResponse = GenericResponse<TableLinesModel>;
using XYTreeResponse = GenericResponse<XYTreeModel>;
using XYResponse = GenericResponse<XYModel>;

}  // namespace VSKTspServer
