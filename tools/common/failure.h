// SPDX-License-Identifier: MIT
#pragma once

#include <stdexcept>
#include <string>

namespace tool {

// What the user reads before the program ends with kFailureStatus.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

constexpr int kFailureStatus = 2;

}  // namespace tool
