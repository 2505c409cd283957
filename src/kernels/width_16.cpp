// SPDX-License-Identifier: MIT
#define OX_LANE_BYTES 16
#define OX_TABLE kernels_16
#include "kernels/width.h"
