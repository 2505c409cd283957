// SPDX-License-Identifier: MIT
// Subnormals on ARMv7: the NEON unit takes them as zero, the scalar unit does not, and the promise is the scalar
// result. The unit says when it did so: flushing an operand sets IDC, flushing a result sets UFC in FPSCR, for every
// lane of every arithmetic instruction. So a block is computed, the two bits are looked at before anything is stored,
// and where one is set the block is computed again by the scalar unit. docs/numerics.md has the whole argument.
#pragma once

#include "lanes/lanes.h"

namespace ox {
namespace {

#if defined(__arm__) && defined(__ARM_NEON)
constexpr uint32_t kFlushBits = 1u << 7 | 1u << 3;  // IDC, UFC

// While it lives the two bits are ours; what the caller had in them comes back at the end.
class FlushWatch {
 public:
  FlushWatch() {
    asm volatile("vmrs %0, fpscr" : "=r"(callers_)::"memory");
    if (callers_ & kFlushBits) clear();
  }
  ~FlushWatch() {
    uint32_t now;
    asm volatile("vmrs %0, fpscr" : "=r"(now)::"memory");
    asm volatile("vmsr fpscr, %0" ::"r"((now & ~kFlushBits) | (callers_ & kFlushBits)) : "memory");
  }
  // A result that the next look must wait for.
  template <class V> OX_INLINE void await(V& v) { asm volatile("" : "+w"(v)); }
  // Whether anything was flushed since the last look.
  OX_INLINE bool tripped() {
    uint32_t now;
    asm volatile("vmrs %0, fpscr" : "=r"(now)::"memory");
    return __builtin_expect((now & kFlushBits) != 0, 0);
  }
  // After the scalar unit has computed a block again: it sets UFC too. All other bits stay as they are.
  void clear() {
    uint32_t now;
    asm volatile("vmrs %0, fpscr" : "=r"(now)::"memory");
    asm volatile("vmsr fpscr, %0" ::"r"(now & ~kFlushBits) : "memory");
  }

 private:
  uint32_t callers_;
};
#endif

// Nothing is flushed elsewhere, and nobody asks.
struct NoWatch {
  template <class V> OX_INLINE void await(V&) {}
};

template <bool kFlushes> struct WatchFor { using type = NoWatch; };
#if defined(__arm__) && defined(__ARM_NEON)
template <> struct WatchFor<true> { using type = FlushWatch; };
#endif
template <class L> using Watch = typename WatchFor<L::kFlushes>::type;

}  // namespace
}  // namespace ox
