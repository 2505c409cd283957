// SPDX-License-Identifier: MIT
#define OX_LANE_BYTES 64
#define OX_TABLE kernels_64
#include "kernels/width.h"
