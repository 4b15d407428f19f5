// For the tests of the experiment kinds: a capture directory with the data
// broker, the experiment opened over it as the model opens one, and the
// windows of table lines the tests ask for. Header only: the support
// library itself links none of the trace model.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>

#include "TestSupport.hpp"
#include "experiments/DataBrokerRouter.hpp"
#include "experiments/VSKTrace.hpp"
#include "tsp_server/models/TspRequests.hpp"

namespace ostrand_test {

// `count` lines from `index`.
inline VSKTspServer::TableLinesRequest tableWindow(int64_t index, int32_t count) {
  VSKTspServer::TableLinesRequest request;
  request.requested_table_index = index;
  request.requested_table_count = count;
  return request;
}

// A file of tracemanager/experiments/tests/golden.
inline std::string experimentGolden(const std::string& name) {
  return sourcePath("tracemanager/experiments/tests/golden/" + name);
}

template <typename Experiment>
class CaptureFixture : public ::testing::Test {
 protected:
  CaptureFixture(std::string name, std::string traceType)
      : name_(std::move(name)), traceType_(std::move(traceType)) {}

  // A new experiment over the capture in `dir`, opened.
  std::unique_ptr<Experiment> openExperiment() {
    auto experiment = std::make_unique<Experiment>(name_, &router);
    experiment->addTrace(VSKTspServer::VSKTrace(traceType_, dir.path(), ""));
    experiment->open();
    return experiment;
  }

  // Each line of golden/<name>.txt (but `#` comments) written in turn as
  // the data file `file`, then a refresh of `experiment`, its status and
  // what `answer` gives: the results, or the errors thrown, against
  // golden/<name>.expected.
  ::testing::AssertionResult afterEachDocument(Experiment& experiment, const std::string& file,
                                               const std::string& name,
                                               const std::function<std::string()>& answer) {
    std::istringstream documents(readFile(experimentGolden(name + ".txt")));
    std::string listing;
    const auto attempt = [&](const char* what, const std::function<std::string()>& step) {
      try {
        listing += std::string(what) + ": " + step() + "\n";
      } catch (const std::exception& e) {
        listing += std::string(what) + " threw: " + e.what() + "\n";
      }
    };
    for (std::string line; std::getline(documents, line);) {
      if (line.empty() || line[0] == '#') continue;
      writeFile(dir / file, line);
      listing += "> " + line + "\n";
      attempt("refresh", [&] {
        experiment.refresh();
        return std::string("done");
      });
      listing += "status: " + experiment.indexingStatus + "\n";
      attempt("answer", answer);
    }
    return matchesGolden(listing, experimentGolden(name + ".expected"));
  }

  TempDir dir;
  VSKTspServer::DataBrokerRouter router;

 private:
  std::string name_, traceType_;
};

}  // namespace ostrand_test
