// SPDX-License-Identifier: MIT
// What a camera's object detector would make of the scene: boxes that shake, gaps, inventions.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "oxscene/random.h"
#include "oxscene/scene.h"

namespace scene {

struct Found {
  Kind kind;
  Box box;  // cut to the image
  double score;
};

class Detector {
 public:
  explicit Detector(std::uint32_t seed);

  std::vector<Found> look(const std::vector<Seen>& objects);

 private:
  static void report(std::vector<Found>& found, Kind kind, const Box& box, double score);
  Box shaken(const Box& box, double drift);

  Random random_;
  std::map<int, int> blind_;     // identity: frames for which it stays unseen
  std::map<int, double> drift_;  // identity: slow error of the box, in parts of its size
  std::vector<Found> mistakes_;  // places that are taken for an object again and again
};

}  // namespace scene
