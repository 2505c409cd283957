// SPDX-License-Identifier: MIT
// The register peak of separate multiplications and additions.
#include "rivals/authors.h"

namespace bench {
namespace {

#if defined(__AVX512F__)
constexpr int kBytes = 64;
#elif defined(__AVX2__)
constexpr int kBytes = 32;
#else
constexpr int kBytes = 16;
#endif
typedef float Vec __attribute__((vector_size(kBytes)));

// A chain is v = v * factor + step, whose fixed point is 1. A multiplication and an addition take 6 to 8 cycles one
// after the other, and no processor starts more than two pairs a cycle: 12 to 16 chains keep it busy. With the two
// constants, 14 fill the sixteen registers of the narrow widths.
constexpr int kChains = 14;

double peak(long pairs, long* lanes) {
  Vec factor = 0.75f - Vec{}, step = 0.25f - Vec{};
  asm("" : "+x"(factor), "+x"(step));  // the compiler must not know them
  Vec v[kChains];
  for (Vec& chain : v) {
    chain = 1.0f - Vec{};
    asm("" : "+x"(chain));
  }
  for (long i = 0; i < pairs / kChains; ++i) {
#pragma GCC unroll 14
    for (Vec& chain : v) chain = chain * factor + step;
  }
  double sum = 0;
  for (const Vec& chain : v)
    for (int i = 0; i < kBytes / 4; ++i) sum += static_cast<double>(chain[i]);
  *lanes = kChains * (kBytes / 4);
  return sum;
}

}  // namespace

void add_peak(Rivals& rivals) {
  rivals.peak = peak;
  rivals.peak_bytes = kBytes;
}

}  // namespace bench
