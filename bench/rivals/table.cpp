// SPDX-License-Identifier: MIT
// The one exported function of a module.
#include "rivals/authors.h"

extern "C" __attribute__((visibility("default"))) const bench::Rivals* ox_bench_rivals() {
  static bench::Rivals rivals;
  rivals.name = OX_RIVALS_NAME;
  bench::add_eigen_products(rivals.eigen);
  bench::add_eigen_elementwise(rivals.eigen);
  bench::add_eigen_inverse(rivals.eigen);
  bench::add_eigen_cycle(rivals.eigen);
  bench::add_plain_products(rivals.plain);
  bench::add_plain_elementwise(rivals.plain);
  bench::add_plain_cycle(rivals.plain);
  bench::add_peak(rivals);
  return &rivals;
}
