// SPDX-License-Identifier: MIT
// From detections to the text of the result.
#pragma once

#include <cstdint>
#include <string>

#include "oxtrack/detections.h"
#include "oxtrack/options.h"

namespace tool {

struct Outcome {
  std::string results;
  std::int64_t frames = 0;    // from the first to the last of the input
  std::int64_t dropped = 0;   // detections beyond the capacity in their frame
  std::int64_t homeless = 0;  // detections for which there was no room to begin a track
  std::int64_t tracks = 0;    // identities written
  double mean_seconds = 0;    // inside the library, per frame that went through it
  double worst_seconds = 0;
};

Outcome track(const DetectionFile& file, const Options& options);

// Library units per pixel.
double scale_of(const Options& options);

}  // namespace tool
