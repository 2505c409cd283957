// SPDX-License-Identifier: MIT
// One filter, made, led and compared field by field after each call.
#ifndef OX_TESTS_FUZZ_FILTER_CALLS_H
#define OX_TESTS_FUZZ_FILTER_CALLS_H

#include "input.h"

namespace fuzz {

void run_filter(Input& input, SameWorkArea& work_area);

}  // namespace fuzz

#endif
