// SPDX-License-Identifier: MIT
// Inside a module: each source fills in its part of an author's table.
#pragma once

#include "rivals/rivals.h"

namespace bench {

enum Depth { kU8, kS8, kU16, kS16, kS32, kF32, kS64, kF64 };  // as in ox.h

void add_eigen_products(Author& author);
void add_eigen_elementwise(Author& author);
void add_eigen_inverse(Author& author);
void add_eigen_cycle(Author& author);
void add_plain_products(Author& author);
void add_plain_elementwise(Author& author);
void add_plain_cycle(Author& author);
void add_peak(Rivals& rivals);

}  // namespace bench
