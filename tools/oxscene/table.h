// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "oxscene/box.h"

namespace scene {

// A line of a file of true boxes or of results; both begin with the same eight columns.
struct Row {
  std::int64_t identity;
  Box box;
  double seventh;      // true boxes: 0 is not to be scored; results: the score
  std::int64_t label;  // class of the object
  double visible;      // true boxes only, 1 where the column is missing
};

using Table = std::map<std::int64_t, std::vector<Row>>;  // by frame

Table read_table(const std::string& path);

}  // namespace scene
