#include "tsp_server/models/TspResponses.hpp"

namespace VSKTspServer {

using nlohmann::json;

void to_json(json& j, const TreeHeader& h) { j = json{{"name", h.name}, {"tooltip", h.tooltip}}; }

void to_json(json& j, const TreeEntry& e) {
  j = json::object();
  j["id"] = e.id;
  j["parentId"] = e.parentId;
  j["labels"] = e.labels;
  j["hasData"] = e.hasData;
  j["style"] = e.style;
}

void to_json(json& j, const TimeGraphEntry& e) {
  to_json(j, static_cast<const TreeEntry&>(e));
  j["start"] = e.start;
  j["end"] = e.end;
  j["metadata"] = e.metadata;
}

void to_json(json& j, const TimeGraphState& s) {
  j = json::object();
  j["start"] = s.start;
  j["end"] = s.end;
  j["label"] = s.label;
  j["tags"] = s.tags;
  j["style"] = s.style;
}

void to_json(json& j, const TimeGraphRow& r) {
  j = json::object();
  j["entryId"] = r.entryId;
  j["states"] = r.states;
}

void to_json(json& j, const TimeGraphArrow& a) {
  j = json::object();
  j["sourceId"] = a.sourceId;
  j["targetId"] = a.targetId;
  j["start"] = a.start;
  j["end"] = a.end;
  j["style"] = a.style;
}

void to_json(json& j, const TableColumn& c) {
  j = json{{"id", c.id}, {"name", c.name}, {"type", c.type}, {"description", c.description}};
}

void to_json(json& j, const TableCell& c) { j = json{{"content", c.content}, {"tags", c.tags}}; }

void to_json(json& j, const TableLine& l) {
  j = json::object();
  j["index"] = l.index;
  j["tags"] = l.tags;
  j["cells"] = l.cells;
}

void to_json(json& j, const XYSeries& s) {
  j = json::object();
  j["seriesId"] = s.seriesId;
  j["seriesName"] = s.seriesName;
  j["style"] = s.style;
  j["xValues"] = s.xValues;
  j["yValues"] = s.yValues;
}

void to_json(json& j, const Annotation& a) {
  j = json::object();
  j["type"] = a.type;
  j["time"] = a.time;
  j["duration"] = a.duration;
  j["entryId"] = a.entryId;
  j["label"] = a.label;
  j["style"] = a.style;
}

void to_json(json& j, const TooltipEntry& t) { j = json{{"key", t.key}, {"value", t.value}}; }

void to_json(json& j, const AnnotationCategoriesModel& m) {
  j = json::object();
  j["annotationCategories"] = m.annotationCategories;
}

void to_json(json& j, const AnnotationsModel& m) {
  j = json::object();
  j["annotations"] = m.annotations;
}

void to_json(json& j, const StylesModel& m) {
  j = json::object();
  j["styles"] = m.styles;
}

void to_json(json& j, const StatesModel& m) {
  j = json::object();
  j["rows"] = m.rows;
}

void to_json(json& j, const TimeGraphTreeModel& m) {
  j = json::object();
  j["entries"] = m.entries;
  j["headers"] = m.headers;
}

void to_json(json& j, const TableLinesModel& m) {
  j = json::object();
  j["size"] = m.size;
  j["lowIndex"] = m.lowIndex;
  j["columnIds"] = m.columnIds;
  j["lines"] = m.lines;
}

void to_json(json& j, const XYTreeModel& m) {
  j = json::object();
  j["entries"] = m.entries;
  j["headers"] = m.headers;
}

void to_json(json& j, const XYModel& m) {
  j = json::object();
  j["title"] = m.title;
  j["series"] = m.series;
}

}  // namespace VSKTspServer
