// The guided tour that `scripts/run.sh` runs with no options: the depth camera (depth and both infrared
// streams) with its controls exercised, then color, then fisheye with its auto exposure converging from
// a dark start. Every transform comes from the DLL through its class factory. The per-frame exposure
// values go to CSV files and a gnuplot script beside them.
#pragma once

#include <ostream>
#include <string>

#include "tools/DllTransformFactory.h"

namespace tools {

struct TourOptions {
  double secondsPerCamera = 4.0;
  std::string outputFolder = "build\\tour";  // the CSV files and the chart script go here
};

// Prints the tour and returns 0 when every stream delivered and every control answered as expected.
int RunTour(DllTransformFactory &factory, const TourOptions &options, std::ostream &out);

}  // namespace tools
