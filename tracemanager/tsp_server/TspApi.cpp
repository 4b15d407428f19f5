#include "tsp_server/TspApi.hpp"

#include <httplib.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

#include "experiments/DataTree.hpp"
#include "experiments/VSKDataProvider.hpp"
#include "experiments/VSKExperiment.hpp"
#include "experiments/VSKTrace.hpp"
#include "source_utilities/Logger.hpp"
#include "tsp_server/ModelManager.hpp"
#include "tsp_server/TspServer.hpp"
#include "tsp_server/models/TableLinesWriter.hpp"
#include "tsp_server/models/TspObjects.hpp"
#include "tsp_server/models/TspRequests.hpp"
#include "tsp_server/models/TspResponses.hpp"

namespace VSKTspServer::TspApi {

using httplib::Request;
using httplib::Response;
using nlohmann::json;

namespace {

// Thrown for an unknown output id. It derives from nothing standard on
// purpose: the library then reports the 500 with EXCEPTION_WHAT "UNKNOWN",
// which is what clients of this server have always seen for a bad id.
struct UnknownOutputId {};

#define TSP_ENTRY(fn) QX_TRACE_NAME("%s(...)\n", "VSKTspServer::TspApi::" fn)

std::string experimentId(const Request& req) { return req.matches[1].str(); }

std::string outputId(const Request& req) { return req.matches[2].str(); }

VSKExperiment* findExperiment(const Request& req) {
  return theModelManager->getExperiment(req.matches[1].str());
}

VSKDataProvider* findOutput(VSKExperiment& experiment, const std::string& id) {
  try {
    return experiment.getOutput(id);
  } catch (const std::invalid_argument&) {
    throw UnknownOutputId{};
  } catch (std::invalid_argument* thrown) {
    delete thrown;
    throw UnknownOutputId{};
  }
}

template <typename Model>
void sendModel(Response& res, const Model& model) {
  sendJson(res, json(model).dump());
}

// The typed routes share one road: find the experiment and the output, cast
// the output to the route's interface (501 when it is of another kind), ask
// it, send the answer.
template <typename Interface, typename Ask>
void answerTyped(const Request& req, Response& res, const char* name, Ask ask) {
  VSKExperiment* experiment = findExperiment(req);
  if (!experiment) return invalidExperiment(res);
  auto* provider = dynamic_cast<Interface*>(findOutput(*experiment, outputId(req)));
  if (!provider) return notImplemented(res, name);
  ask(*provider);
}

// ---- Traces --------------------------------------------------------------

void openTraceAnswer(const OpenTraceRequest& request, Response& res);

void getHealth(const Request&, Response& res) {
  TSP_ENTRY("getHealth");
  sendModel(res, HealthResponse{theModelManager->getStatus()});
}

void getTraces(const Request&, Response& res) {
  TSP_ENTRY("getTraces");
  notImplemented(res, "getTraces");
}

// A path outside the data tree is the client's mistake: 400, and the route
// has changed nothing.
template <typename Work>
void refusingOutsidePaths(Response& res, Work work) {
  try {
    work();
  } catch (const OutsideDataTree& error) {
    QX_LOG_ERROR("VSKTspServer::TspApi: %s", error.what());
    sendText(res, 400, error.what());
  }
}

void postTraces(const Request& req, Response& res) {
  TSP_ENTRY("postTraces");
  QX_TRACE_ARG("body", req.body.c_str());
  const auto request = parseBody(req.body, true).get<OpenTraceRequest>();
  refusingOutsidePaths(res, [&] { openTraceAnswer(request, res); });
}

void openTraceAnswer(const OpenTraceRequest& request, Response& res) {
  VSKTrace* trace = theModelManager->openTrace(request.uri, request.name, request.typeID);
  if (!trace) return sendText(res, 400, "Can't create trace");
  sendModel(res, static_cast<const Trace&>(*trace));
}

void getTracesUuid(const Request& req, Response& res) {
  TSP_ENTRY("getTracesUuid");
  VSKTrace* trace = theModelManager->getTrace(experimentId(req));
  if (!trace) return sendText(res, 400, "Trace doesn't exist");
  sendModel(res, static_cast<const Trace&>(*trace));
}

void deleteTracesUuid(const Request& req, Response& res) {
  TSP_ENTRY("deleteTracesUuid");
  auto trace = theModelManager->deleteTrace(experimentId(req));
  if (!trace) return sendJson(res, "");
  sendModel(res, static_cast<const Trace&>(*trace));
}

// ---- Experiments -----------------------------------------------------------

void getExperiments(const Request&, Response& res) {
  TSP_ENTRY("getExperiments");
  json list = json::array();
  for (VSKExperiment* experiment : theModelManager->getExperiments())
    list.push_back(static_cast<const Experiment&>(*experiment));
  sendJson(res, list.dump());
}

void postExperiments(const Request& req, Response& res) {
  TSP_ENTRY("postExperiments");
  QX_TRACE_ARG("body", req.body.c_str());
  const auto request = parseBody(req.body, true).get<ExperimentRequest>();
  refusingOutsidePaths(res, [&] {
    VSKExperiment* experiment = theModelManager->openExperiment(request.name, request.traces);
    if (!experiment) return sendText(res, 400, "Can't create experiment");
    sendModel(res, static_cast<const Experiment&>(*experiment));
  });
}

void getExperiment(const Request& req, Response& res) {
  TSP_ENTRY("getExperiment");
  VSKExperiment* experiment = findExperiment(req);
  if (!experiment) return invalidExperiment(res);
  sendModel(res, static_cast<const Experiment&>(*experiment));
}

void deleteExperiment(const Request& req, Response& res) {
  TSP_ENTRY("deleteExperiment");
  auto experiment = theModelManager->deleteExperiment(experimentId(req));
  if (!experiment) return invalidExperiment(res);
  sendModel(res, static_cast<const Experiment&>(*experiment));
}

void postExpRefresh(const Request& req, Response& res) {
  TSP_ENTRY("postExpRefresh");
  QX_TRACE_ARG("uuid", experimentId(req).c_str());
  VSKExperiment* experiment = findExperiment(req);
  if (!experiment) return invalidExperiment(res);
  experiment->refresh();
  sendJson(res, "");
}

// ---- Outputs ---------------------------------------------------------------

void getExpOutputs(const Request& req, Response& res) {
  TSP_ENTRY("getExpOutputs");
  VSKExperiment* experiment = findExperiment(req);
  if (!experiment) return invalidExperiment(res);
  json list = json::array();
  for (const DataProvider* descriptor : experiment->getOutputs()) list.push_back(*descriptor);
  sendJson(res, list.dump());
}

void getExpMarkerSets(const Request& req, Response& res) {
  TSP_ENTRY("getExpMarkerSets");
  VSKExperiment* experiment = findExperiment(req);
  if (!experiment) return invalidExperiment(res);
  MarkerSetsResponse response;
  for (const auto& [name, id] : experiment->markerSets) response.model.push_back({name, id});
  sendModel(res, response);
}

void getExpOutput(const Request& req, Response& res) {
  TSP_ENTRY("getExpOutput");
  VSKExperiment* experiment = findExperiment(req);
  if (!experiment) return invalidExperiment(res);
  sendModel(res, static_cast<const DataProvider&>(*findOutput(*experiment, outputId(req))));
}

void getExpOutputAnnotations(const Request& req, Response& res) {
  TSP_ENTRY("getExpOutputAnnotations");
  // A GET normally has no body; its parse error, like any other standard
  // exception here, answers an empty category list.
  try {
    const auto request = parseBody(req.body, false).at("parameters").get<AnnotationsRequest>();
    answerTyped<VSKDataProvider>(req, res, "getExpOutputAnnotations", [&](VSKDataProvider& p) {
      sendModel(res, p.getAnnotationCategories(request));
    });
  } catch (const std::exception&) {
    sendModel(res, AnnotationCategoriesResponse{});
  }
}

void postExpOutputAnnotations(const Request& req, Response& res) {
  TSP_ENTRY("postExpOutputAnnotations");
  const auto request = parseBody(req.body, false).at("parameters").get<AnnotationsRequest>();
  answerTyped<VSKDataProvider>(req, res, "postExpOutputAnnotations",
                               [&](VSKDataProvider& p) { sendModel(res, p.getAnnotations(request)); });
}

void postExpOutputStyle(const Request& req, Response& res) {
  TSP_ENTRY("postExpOutputStyle");
  const auto request = parseBody(req.body, true).get<StringRequest>();
  answerTyped<IStylesProvider>(req, res, "getExpOutputStyle", [&](IStylesProvider& p) {
    sendModel(res, p.getStyles(request.parameters));
  });
}

// ---- Time graphs -----------------------------------------------------------

void postExpTimeGraphArrows(const Request& req, Response& res) {
  TSP_ENTRY("postExpTimeGraphArrows");
  const json body = parseBody(req.body, false);
  const auto range = body.at("parameters").at("requested_timerange").get<TimeRange>();
  answerTyped<ITimeGraphProvider>(req, res, "postExpTimeGraphArrows", [&](ITimeGraphProvider& p) {
    sendModel(res, p.getArrows(range));
  });
}

void postExpTimeGraphStates(const Request& req, Response& res) {
  TSP_ENTRY("postExpTimeGraphStates");
  const json body = parseBody(req.body, false);
  const json& parameters = body.at("parameters");
  const auto range = parameters.at("requested_timerange").get<TimeRange>();
  const auto items = saturatingNumbers<int32_t>(parameters.at("requested_items"));
  answerTyped<ITimeGraphProvider>(req, res, "postExpTimeGraphStates", [&](ITimeGraphProvider& p) {
    sendModel(res, p.getStates(range, items));
  });
}

void postExpTimeGraphTooltip(const Request& req, Response& res) {
  TSP_ENTRY("postExpTimeGraphTooltip");
  const auto request = parseBody(req.body, false).at("parameters").get<TooltipRequest>();
  answerTyped<ITimeGraphProvider>(req, res, "postExpTimeGraphTooltip", [&](ITimeGraphProvider& p) {
    sendModel(res, p.getTooltip(request));
  });
}

void postExpTimeGraphTree(const Request& req, Response& res) {
  TSP_ENTRY("postExpTimeGraphTree");
  const auto range = readTimeRangeBounds(parseBody(req.body, true).at("requested_timerange"));
  answerTyped<ITimeGraphProvider>(req, res, "postExpTimeGraphTree", [&](ITimeGraphProvider& p) {
    sendModel(res, p.getTree(range.start, range.end));
  });
}

// ---- Tables ------------------------------------------------------------------

void postExpTableColumns(const Request& req, Response& res) {
  TSP_ENTRY("postExpTableColumns");
  const auto request = parseBody(req.body, true).get<StringRequest>();
  answerTyped<VSKTableProvider>(req, res, "postExpTableColumns", [&](VSKTableProvider& p) {
    sendModel(res, p.getColumns(request.parameters));
  });
}

void postExpTableLines(const Request& req, Response& res) {
  TSP_ENTRY("postExpTableLines");
  auto request = parseBody(req.body, false).at("parameters").get<TableLinesRequest>();
  // A viewer asks for a screenful; a larger range is answered in part (the
  // answer's lowIndex and line count say which part), so one request never
  // builds an answer of hundreds of megabytes under the model lock.
  request.requested_table_count = std::min(request.requested_table_count, kMaxTableLines);
  answerTyped<VSKTableProvider>(req, res, "postExpTableLines", [&](VSKTableProvider& p) {
    std::string text;
    if (!p.writeLines(request, text)) text = writeTableLinesResponse(p.getLines(request));
    sendJson(res, std::move(text));
  });
}

// ---- XY ------------------------------------------------------------------------

void postExpXYGraphTree(const Request& req, Response& res) {
  TSP_ENTRY("postExpXYGraphTree");
  const auto range = readTimeRangeBounds(parseBody(req.body, true).at("requested_timerange"));
  answerTyped<IXYDataProvider>(req, res, "postExpXYGraphTree", [&](IXYDataProvider& p) {
    sendModel(res, p.getXYTree(range.start, range.end));
  });
}

void postExpXYGraphXy(const Request& req, Response& res) {
  TSP_ENTRY("postExpXYGraphXy");
  const json body = parseBody(req.body, false);
  const json& parameters = body.at("parameters");
  const auto range = parameters.at("requested_timerange").get<TimeRange>();
  const auto items = saturatingNumbers<int32_t>(parameters.at("requested_items"));
  answerTyped<IXYDataProvider>(req, res, "postExpXYGraphXy", [&](IXYDataProvider& p) {
    sendModel(res, p.getXY(range, items));
  });
}

}  // namespace

json parseBody(const std::string& body, bool unwrap) {
  json document = json::parse(body);
  if (unwrap && document.is_object()) {
    if (auto it = document.find("parameters"); it != document.end()) return *it;
  }
  return document;
}

void sendJson(Response& res, std::string text) {
  res.status = 200;
  // What set_content does, less its copy of the body: a table answer is
  // tens of kilobytes.
  res.body = std::move(text);
  res.headers.erase("Content-Type");
  res.set_header("Content-Type", "application/json");
}

void sendText(Response& res, int status, const std::string& text) {
  res.status = status;
  res.set_content(text, "text/plain");
}

void notImplemented(Response& res, const std::string& name) {
  if (QX_LOG_LEVEL() >= 1)
    Logger::instance().log(QX_NLV::kLogWarning, 0, "VSKTspServer::TspApi::%s() is not implemented!",
                           name.c_str());
  sendText(res, 501, "To be implemented: " + name);
}

void invalidExperiment(Response& res) {
  if (QX_LOG_LEVEL() >= 1)
    Logger::instance().log(QX_NLV::kLogError, 2, "VSKTspServer::TspApi: Invalid Experiment UUID!");
  sendText(res, 400, "Invalid Experiment UUID");
}

void registerRoutes(httplib::Server& server) {
  const std::string& p = tspApiPrefix;
  const std::string e = R"(([\w-]+))";
  const std::string o = R"(([\w.-]+))";
  const std::string exp = p + "/experiments/" + e;
  const std::string out = exp + "/outputs";
  // The library tries the patterns of one method in this order: the marker
  // sets route must come before the general output route.
  server.Get(p + "/health", getHealth);
  server.Get(p + "/traces", getTraces);
  server.Post(p + "/traces", postTraces);
  server.Get(p + "/traces/" + e, getTracesUuid);
  server.Delete(p + "/traces/" + e, deleteTracesUuid);
  server.Get(p + "/experiments", getExperiments);
  server.Post(p + "/experiments", postExperiments);
  server.Get(exp, getExperiment);
  server.Delete(exp, deleteExperiment);
  server.Get(out, getExpOutputs);
  server.Get(out + "/markerSets", getExpMarkerSets);
  server.Get(out + "/" + o, getExpOutput);
  server.Get(out + "/" + o + "/annotations", getExpOutputAnnotations);
  server.Post(out + "/" + o + "/annotations", postExpOutputAnnotations);
  server.Post(out + "/" + o + "/style", postExpOutputStyle);
  server.Post(out + "/timeGraph/" + o + "/arrows", postExpTimeGraphArrows);
  server.Post(out + "/timeGraph/" + o + "/states", postExpTimeGraphStates);
  server.Post(out + "/timeGraph/" + o + "/tooltip", postExpTimeGraphTooltip);
  server.Post(out + "/timeGraph/" + o + "/tree", postExpTimeGraphTree);
  server.Post(out + "/table/" + o + "/columns", postExpTableColumns);
  server.Post(out + "/table/" + o + "/lines", postExpTableLines);
  server.Post(out + "/XY/" + o + "/tree", postExpXYGraphTree);
  server.Post(out + "/XY/" + o + "/xy", postExpXYGraphXy);
  server.Post(exp + "/refresh", postExpRefresh);
}

}  // namespace VSKTspServer::TspApi
