// The interfaces that the protocol's routes call on an output. A route
// reaches the one it needs by a dynamic cast and answers 501 when the cast
// fails; the base classes in VSKDataProvider.hpp give each output its
// descriptor.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tsp_server/models/TspRequests.hpp"
#include "tsp_server/models/TspResponses.hpp"

namespace VSKTspServer {

class IAnnoationsProvider {
 public:
  virtual ~IAnnoationsProvider() = default;
  virtual AnnotationCategoriesResponse getAnnotationCategories(AnnotationsRequest request) = 0;
  virtual AnnotationsResponse getAnnotations(AnnotationsRequest request) = 0;
};

class IVirtualTableProvider {
 public:
  virtual ~IVirtualTableProvider() = default;
  virtual ColumnsResponse getColumns(std::string parameters) = 0;
  virtual TableLinesResponse getLines(TableLinesRequest request) = 0;
};

class ITimeGraphProvider {
 public:
  virtual ~ITimeGraphProvider() = default;
  virtual ArrowsResponse getArrows(TimeRange range) = 0;
  virtual StatesResponse getStates(TimeRange range, std::vector<int32_t> requestedItems) = 0;
  virtual TooltipResponse getTooltip(TooltipRequest request) = 0;
  virtual TimeGraphTreeResponse getTree(int64_t start, int64_t end) = 0;
};

class IStylesProvider {
 public:
  virtual ~IStylesProvider() = default;
  virtual StylesResponse getStyles(std::string parameters) = 0;
};

class IXYDataProvider {
 public:
  virtual ~IXYDataProvider() = default;
  virtual XYResponse getXY(TimeRange range, std::vector<int32_t> requestedItems) = 0;
  virtual XYTreeResponse getXYTree(int64_t start, int64_t end) = 0;
};

}  // namespace VSKTspServer
