// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <random>

namespace scene {

// The same numbers for a seed on every machine: std::mt19937 is fixed by the language, its distributions are not.
class Random {
 public:
  explicit Random(std::uint32_t seed) : engine_(seed) {}

  // 0 up to below 1, a multiple of 2^-32, exact in a double.
  double unit() { return static_cast<double>(engine_()) * 0x1p-32; }

  double between(double low, double high) { return low + (high - low) * unit(); }

  int whole(int low, int high) { return low + static_cast<int>(unit() * (high - low + 1)); }

  bool chance(double probability) { return unit() < probability; }

  // Near enough to a normal distribution of mean 0 and deviation 1: twelve uniform numbers have variance 1 together.
  double normal() {
    double sum = -6;
    for (int i = 0; i < 12; ++i) sum += unit();
    return sum;
  }

 private:
  std::mt19937 engine_;
};

}  // namespace scene
