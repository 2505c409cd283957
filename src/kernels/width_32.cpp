// SPDX-License-Identifier: MIT
#define OX_LANE_BYTES 32
#define OX_TABLE kernels_32
#include "kernels/width.h"
