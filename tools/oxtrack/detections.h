// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tool {

// Corners in the library's units.
struct Detection {
  std::int64_t frame;
  float x1, y1, x2, y2;
  float score;
  std::int32_t label;  // number of the label in DetectionFile::labels, from 1
};

struct DetectionRules {
  double scale;  // library units per pixel
  double min_score;
  std::optional<std::int32_t> label_column;
};

struct DetectionFile {
  std::vector<Detection> detections;  // by rising frame, within a frame as in the file; none below min_score
  std::vector<std::string> labels;    // distinct ones, as whole numbers in plain form, by first appearance
  std::int64_t lines = 0;             // detections in the file
  std::int64_t below_min_score = 0;
  std::int64_t first_frame = 0;  // over all lines of the file; without meaning when there are none
  std::int64_t last_frame = 0;
};

DetectionFile read_detections(const std::string& path, const DetectionRules& rules);

}  // namespace tool
