// The provider tree: the four base classes that give every output its
// descriptor, over the interfaces that the protocol's routes call
// (ProviderInterfaces.hpp).
//
// An experiment holds its outputs as `VSKDataProvider*`; a route reaches the
// interface it needs by a dynamic cast and answers 501 when the cast fails.
// Tables are served only through `VSKTableProvider`: a class that implements
// `IVirtualTableProvider` without that base is not a table to the routes.
//
// Ids: each base class numbers its instances from 1 with a counter of its own
// that is never reset, so an id never repeats within a process, even after
// an experiment is closed and opened again. An experiment may overwrite `id`
// before it registers the provider.
//
// Threads: providers are called one at a time under the server's request
// lock. The id counters are atomic, so constructing providers elsewhere (a
// test, a refresh on another thread) is safe too.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "experiments/ProviderInterfaces.hpp"
#include "tsp_server/models/TspObjects.hpp"

namespace VSKTspServer {

// The static type of every output. Answers the two annotation operations
// once for all providers: empty status, empty lists.
class VSKDataProvider : public IAnnoationsProvider, public DataProvider {
 public:
  AnnotationCategoriesResponse getAnnotationCategories(AnnotationsRequest request) final;
  AnnotationsResponse getAnnotations(AnnotationsRequest request) final;

 protected:
  VSKDataProvider() = default;
};

class VSKTableProvider : public VSKDataProvider, public IVirtualTableProvider {
 public:
  static constexpr const char* kIdStem = "com.qx.vsk.vireo.TableDataProvider";
  VSKTableProvider();

  // Writes the whole table (all lines, all columns) as CSV to `path`.
  // 0 on success; -1 when the file cannot be created or the table cannot
  // be read, the reason logged as an error.
  int exportCsv(std::string path);

  // The answer of getLines(request) as JSON text, appended to `out`: the
  // very bytes that writeTableLinesResponse gives for it. A table that can
  // write them without building the model overrides this; false, with `out`
  // as it was, leaves the answer to getLines and the writer (whatever the
  // reason: a table without a fast path, or lines it cannot vouch for, such
  // as a cell of the wrong type, whose error getLines then reports).
  virtual bool writeLines(const TableLinesRequest& request, std::string& out);
};

class VSKTimeGraphProvider : public VSKDataProvider,
                             public ITimeGraphProvider,
                             public IStylesProvider {
 public:
  static constexpr const char* kIdStem = "com.qx.vsk.vireo.TimeGraphDataProvider";
  VSKTimeGraphProvider();
};

class VSKTreeTimeXYProvider : public VSKDataProvider, public IXYDataProvider {
 public:
  static constexpr const char* kIdStem = "com.qx.vsk.vireo.TreeTimeXYDataProvider";
  VSKTreeTimeXYProvider();
};

class VSKDataTreeProvider : public VSKDataProvider, public IXYDataProvider {
 public:
  static constexpr const char* kIdStem = "com.qx.vsk.vireo.DataTreeXYDataProvider";
  VSKDataTreeProvider();
};

// Response status of a provider that answered.
inline constexpr const char* kStatusCompleted = "COMPLETED";

}  // namespace VSKTspServer
