// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace tool {

// The arguments of ox_tracker_create, with the defaults of this tool.
//
// The four defaults of tracking were tuned on 18 public pedestrian and road sequences with ground truth, 1021 true
// objects, gate 80, detections that score 0.3 or more: 407 objects kept one identity (50 % on average over the
// sequences), 1969 identity switches, recall 76 %, precision 89 %. The optimum is flat: max_misses from 5 to 12 and
// iou_threshold from 0 to 0.2 change the identities kept by less than 1 %, near_dist2 0 changes nothing to speak of.
// But iou_threshold 0.3 loses 4 % of them, max_misses 30 has 28 % more switches, and confirm_hits 2 pays for 3 % more
// identities with 21 % more switches.
struct TrackerParameters {
  std::uint32_t aux0 = 0;
  std::uint32_t aux1 = 0;
  std::optional<std::int32_t> capacity;  // without it, what the input needs
  std::int32_t confirm_hits = 3;
  std::int32_t max_misses = 8;
  bool any_label = false;
  float near_dist2 = 1.0f;
  float iou_threshold = 0.1f;
};

struct Options {
  std::string input;
  std::string output = "-";
  TrackerParameters tracker;
  double min_score = -std::numeric_limits<double>::infinity();
  std::optional<std::int32_t> label_column;  // 1-based; 0: labels are not read
  double gate = 80;                          // pixels
  bool coasting = false;

  // Not empty when help or version was asked for: to be printed, and nothing else done.
  std::string information;
};

Options parse_options(int argc, char** argv);

}  // namespace tool
