// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <set>
#include <string>

namespace scene {

// What the seqinfo.ini beside a file of true boxes says about scoring; everything is empty without one.
struct SequenceInfo {
  std::set<std::int64_t> labels;  // classes that the detector knows; empty: no other classes to be told from
  double least_height = 0;        // pixels; what is not taller may be missing in the true boxes
};

SequenceInfo read_sequence_info(const std::string& truth_path);

}  // namespace scene
