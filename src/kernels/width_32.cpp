// SPDX-License-Identifier: MIT
#define OX_LANE_BYTES 32
#define OX_TABLE kernels_32
// Where a loop stands in a cache line decides over up to 4 % of a product's time: wherever this code is linked, its
// first function stands 48 bytes into one, where products of floats were fastest.
asm(".text\n\t.p2align 6\n\t.skip 48");
#include "kernels/width.h"
