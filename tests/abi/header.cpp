// SPDX-License-Identifier: MIT
// The header alone, as C++17.
#include "ox.h"

static_assert(OX_TYPE(OX_U8, 3) == OX_U8 + 2 * 8, "a type word is the depth plus eight for each further channel");
static_assert(OX_TYPE(OX_F64, 32) == 0xFF, "32 channels fill the channel field");
