// SPDX-License-Identifier: MIT
// One rounding per operation: included by every source that computes with floats.
#pragma once

#include <cfloat>

#if FLT_EVAL_METHOD != 0
#error "float expressions must round to float: on i686 build with -msse2 -mfpmath=sse"
#endif
