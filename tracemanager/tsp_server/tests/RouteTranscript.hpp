// Route tests as transcripts: a file of requests is sent, in order, to a
// server running in the test's process, and the answers (status, content
// type, the exception text of a 500, the body) are compared with an expected
// transcript beside it (see ostrand_test::matchesGolden for the update mode).
//
// A request line is `METHOD PATH [BODY]`, after lines `+ NAME: VALUE` for
// headers of its own (Content-Type among them); `#` starts a comment. In
// paths, bodies and headers `{NAME}` stands for the UUID of the experiment
// called NAME, `{NAME:OUTPUT}` for the id of its output called OUTPUT,
// `{NAME/trace}` for the UUID of its first trace, `{N}` for a trace opened
// by hand under the name N, `{home}` for the temporary user directory and
// `{port}` for the server's port.
// Answers show the same placeholders in place of the random UUIDs and the
// directory, and lists of experiments by name. Lines that start with `!` act
// on the capture tree below live-targets: `! remove TARGET/TYPE`, `! capture
// TARGET TYPE` (a metadata file only), `! sample TARGET TDF|MTB` (with a
// small document) and `! write PATH TEXT` (the rest of the line).
#pragma once

#include <httplib.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "CaptureTree.hpp"
#include "ServerFixture.hpp"
#include "TestSupport.hpp"

namespace ostrand_test {

class RouteTranscript {
 public:
  RouteTranscript(RunningServer& server, CaptureTree& tree)
      : client_(server.client()), tree_(tree), port_(std::to_string(server.port())) {}

  // Runs `<base>.http` and compares the answers with `<base>.expected`.
  ::testing::AssertionResult run(const std::string& base) {
    std::ifstream in(base + ".http");
    if (!in) return ::testing::AssertionFailure() << "cannot read " << base << ".http";
    std::ostringstream out;
    std::string line;
    httplib::Headers headers;
    while (std::getline(in, line)) {
      if (line.empty() || line[0] == '#') continue;
      out << "> " << line << "\n";
      if (line[0] == '!') {
        act(line);
        continue;
      }
      if (line[0] == '+') {  // `+ NAME: VALUE`, a header of the next request
        const std::string header = expand(line.substr(2));
        const size_t colon = header.find(": ");
        headers.emplace(header.substr(0, colon), header.substr(colon + 2));
        continue;
      }
      learnIds();
      const std::string request = expand(line);  // names may hold blanks, ids do not
      const size_t pathAt = request.find(' ');
      const size_t bodyAt = request.find(' ', pathAt + 1);
      const std::string method = request.substr(0, pathAt);
      const std::string path = request.substr(pathAt + 1, bodyAt - pathAt - 1);
      const std::string body = bodyAt == std::string::npos ? "" : request.substr(bodyAt + 1);
      const auto type = headers.find("Content-Type");
      const std::string contentType = type == headers.end() ? "application/json" : type->second;
      if (type != headers.end()) headers.erase(type);
      httplib::Result res = method == "GET"      ? client_->Get(path, headers)
                            : method == "DELETE" ? client_->Delete(path, headers)
                                                 : client_->Post(path, headers, body, contentType);
      headers.clear();
      if (!res) {
        out << "< no answer\n";
        continue;
      }
      learnIds();
      learnOpened(res->body);
      out << "< " << res->status << " " << res->get_header_value("Content-Type");
      if (res->has_header("EXCEPTION_WHAT"))
        out << " EXCEPTION_WHAT=" << res->get_header_value("EXCEPTION_WHAT");
      out << "\n" << hideIds(inNameOrder(res->body)) << "\n";
    }
    return matchesGolden(out.str(), base + ".expected");
  }

 private:
  void act(const std::string& line) {
    std::istringstream words(line.substr(1));
    std::string verb, target, rest;
    words >> verb >> target;
    std::getline(words >> std::ws, rest);
    const auto live = tree_.liveTargets();
    if (verb == "remove") std::filesystem::remove_all(live / target);
    if (verb == "capture") tree_.addLiveCapture(target, rest);
    if (verb == "write") writeFile(live / target, rest);
    if (verb == "sample") {
      const auto dir = tree_.addLiveCapture(target, rest);
      if (rest == "TDF")
        writeFile(dir / "tdf_data.json", VSKTspServer::samples::tdfDocument(2).dump());
      if (rest == "MTB")
        writeFile(dir / "mtb_data.json", VSKTspServer::samples::mtbDocument(2, 2).dump());
    }
  }

  // The UUIDs of every experiment and trace seen so far, and the outputs'
  // ids by name; kept after an experiment goes, so its old UUID still reads
  // as its name.
  void learnIds() {
    auto res = client_->Get("/tsp/api/experiments");
    if (!res || res->status != 200) return;
    for (const auto& e : nlohmann::json::parse(res->body)) {
      const std::string name = e["name"];
      names_[e["UUID"]] = name;
      ids_[name] = e["UUID"];
      if (!e["traces"].empty()) {
        names_[e["traces"][0]["UUID"]] = name + "/trace";
        ids_[name + "/trace"] = e["traces"][0]["UUID"];
      }
      auto outputs = client_->Get("/tsp/api/experiments/" + std::string(e["UUID"]) + "/outputs");
      if (!outputs || outputs->status != 200) continue;
      for (const auto& o : nlohmann::json::parse(outputs->body)) {
        // Output ids count up across the process; they read as names too.
        // A fixed id that several experiments share stays as it is.
        const std::string id = o["id"], placeholder = name + ":" + std::string(o["name"]);
        ids_[placeholder] = id;
        if (shared_.count(id) != 0) continue;
        auto [known, added] = names_.emplace(id, placeholder);
        if (!added && known->second != placeholder) {
          names_.erase(known);
          shared_.insert(id);
        }
      }
    }
  }

  // A trace opened by hand is in no experiment yet: it is known by the name
  // its answer gives.
  void learnOpened(const std::string& body) {
    const auto answer = nlohmann::json::parse(body, nullptr, false);
    if (!answer.is_object() || !answer.contains("UUID") || !answer.contains("name")) return;
    if (names_.count(answer["UUID"]) != 0) return;
    names_[answer["UUID"]] = answer["name"];
    ids_[answer["name"]] = answer["UUID"];
  }

  // Lists of experiments come in the order of their random UUIDs; the
  // transcript shows them by name, and says so if the order was wrong.
  static std::string inNameOrder(const std::string& body) {
    auto list = nlohmann::json::parse(body, nullptr, false);
    if (!list.is_array() || list.size() < 2 || !list[0].is_object() || !list[0].contains("UUID"))
      return body;
    const bool uuidOrder = std::is_sorted(list.begin(), list.end(), [](const auto& a, const auto& b) {
      return a["UUID"].template get<std::string>() < b["UUID"].template get<std::string>();
    });
    std::sort(list.begin(), list.end(), [](const auto& a, const auto& b) {
      return a["name"].template get<std::string>() < b["name"].template get<std::string>();
    });
    return (uuidOrder ? "" : "NOT IN UUID ORDER ") + list.dump();
  }

  std::string expand(std::string text) const {
    text = replaceAll(text, "{home}", tree_.root().string());
    text = replaceAll(text, "{port}", port_);
    for (const auto& [name, id] : ids_) text = replaceAll(text, "{" + name + "}", id);
    return text;
  }

  std::string hideIds(std::string text) const {
    // Longest first: one output id may be the start of another.
    std::vector<std::pair<std::string, std::string>> byLength(names_.begin(), names_.end());
    std::sort(byLength.begin(), byLength.end(),
              [](const auto& a, const auto& b) { return a.first.size() > b.first.size(); });
    for (const auto& [id, name] : byLength) text = replaceAll(text, id, "{" + name + "}");
    text = replaceAll(text, tree_.root().string(), "{home}");
    return text;
  }

  std::unique_ptr<httplib::Client> client_;
  CaptureTree& tree_;
  std::string port_;
  std::map<std::string, std::string> names_;  // UUID or output id -> placeholder name
  std::map<std::string, std::string> ids_;    // placeholder name -> UUID or output id
  std::set<std::string> shared_;              // output ids of more than one experiment
};

}  // namespace ostrand_test
