// The views of a power capture, each an output of WLExperiment over the
// experiment's WLDataNode:
//
//   WLTable       "Records": one line per record, cells made on demand.
//   WLLineGraph   "Current": the current over a range, thinned by a fixed
//                 stride to about 2000 real samples.
//   WLSummary     "Summary": duration, energy, power, voltage, current and
//                 coin-cell life over a selected range, as a data tree.
//   WLStateGraph  "States": power modes and peripherals as time spans, with
//                 arrows that follow the order of the modes (only for
//                 streams with state words); see WLStateGraph.hpp.
//
// A view never owns the node and never copies its columns: every request
// reads just the records it answers for, so its cost does not grow with
// the stream. The pointer is set before the view is reachable and again
// after each reload; a view without a node answers empty.
//
// Threads: called under the trace server's request lock only; no lock of
// their own. WLSummary::getXYTree writes the statistics into the shared
// node, which the next reader then sees.
#pragma once

#include "wattline/WLLineGraph.hpp"
#include "wattline/WLSummary.hpp"
#include "wattline/WLTable.hpp"
