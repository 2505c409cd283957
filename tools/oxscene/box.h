// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>

namespace scene {

// Pixels.
struct Box {
  double left = 0, top = 0, width = 0, height = 0;

  double right() const { return left + width; }
  double bottom() const { return top + height; }
  double area() const { return width * height; }
};

inline double shared_area(const Box& a, const Box& b) {
  const double width = std::min(a.right(), b.right()) - std::max(a.left, b.left);
  const double height = std::min(a.bottom(), b.bottom()) - std::max(a.top, b.top);
  return width > 0 && height > 0 ? width * height : 0;
}

// Intersection over union; 0 for two empty boxes.
inline double iou(const Box& a, const Box& b) {
  const double shared = shared_area(a, b);
  return shared > 0 ? shared / (a.area() + b.area() - shared) : 0;
}

}  // namespace scene
