// SPDX-License-Identifier: MIT
// The nearest track of each detection. Which one that is depends on no other detection, so lanes run across them.
#pragma once

#include "kernels/kernels.h"
#include "lanes/flush.h"

namespace ox {
namespace {

typedef Lanes<float, OX_LANE_BYTES> FloatLanes;
constexpr int kFloats = static_cast<int>(FloatLanes::kCount);
#if defined(__arm__) && defined(__ARM_NEON)
typedef int32x4_t IntVec;
OX_INLINE IntVec less(FloatLanes::Vec a, FloatLanes::Vec b) { return vreinterpretq_s32_u32(vcltq_f32(a, b)); }
OX_INLINE IntVec equal(IntVec a, IntVec b) { return vreinterpretq_s32_u32(vceqq_s32(a, b)); }
OX_INLINE FloatLanes::Vec choose(IntVec mask, FloatLanes::Vec yes, FloatLanes::Vec no) {
  return vbslq_f32(vreinterpretq_u32_s32(mask), yes, no);
}
#else
typedef int32_t IntVec __attribute__((vector_size(sizeof(FloatLanes::Vec))));
OX_INLINE IntVec less(FloatLanes::Vec a, FloatLanes::Vec b) { return a < b; }
OX_INLINE IntVec equal(IntVec a, IntVec b) { return a == b; }
OX_INLINE FloatLanes::Vec choose(IntVec mask, FloatLanes::Vec yes, FloatLanes::Vec no) {
  return (FloatLanes::Vec)((mask & (IntVec)yes) | (~mask & (IntVec)no));
}
#endif

// One detection by the scalar unit, for machines that flush.
[[maybe_unused]] void plain_nearest(const NearestArgs& p, std::ptrdiff_t d) {
  const ox_tracker_detection_t& detection = p.detections[d];
  for (int t = 0; t < p.count; ++t) {
    if (p.labels[t] != (p.any_label ? 0 : detection.label)) continue;
    const float dx = p.cx[t] - detection.cx, dy = p.cy[t] - detection.cy;
    const float dist2 = dx * dx + dy * dy;
    if (dist2 < p.dist2[d]) {  // strict: on a tie the older track keeps its place
      p.dist2[d] = dist2;
      p.match[d] = p.tracks[t];
    }
  }
}

// A template, so that machines without a flushing unit drop what looks for a flush.
template <class L> void nearest(const NearestArgs& p) {
  Watch<L> watch;
  std::ptrdiff_t first = 0;
  for (; first < p.det_count; first += kFloats) {
    const int lanes = static_cast<int>(p.det_count - first < kFloats ? p.det_count - first : kFloats);
    alignas(64) float xs[kFloats] = {}, ys[kFloats] = {}, dist2s[kFloats] = {};
    alignas(64) int32_t labels[kFloats] = {}, bests[kFloats];
    for (int i = 0; i < lanes; ++i) {
      const ox_tracker_detection_t& d = p.detections[first + i];
      xs[i] = d.cx;
      ys[i] = d.cy;
      labels[i] = p.any_label ? 0 : d.label;
      dist2s[i] = p.dist2[first + i];
    }
    typename L::Vec x, y, best_dist2;
    IntVec label, best;
    __builtin_memcpy(&x, xs, sizeof x);
    __builtin_memcpy(&y, ys, sizeof y);
    __builtin_memcpy(&label, labels, sizeof label);
    __builtin_memcpy(&best_dist2, dist2s, sizeof best_dist2);
    best = IntVec{};
    for (int t = 0; t < p.count; ++t) {
      const typename L::Vec dx = L::sub(L::splat(p.cx[t]), x), dy = L::sub(L::splat(p.cy[t]), y);
      const typename L::Vec dist2 = L::add(L::mul(dx, dx), L::mul(dy, dy));
      const IntVec track_label = p.labels[t] - IntVec{}, number = (t + 1) - IntVec{};
      const IntVec nearer = less(dist2, best_dist2) & equal(track_label, label);
      best_dist2 = choose(nearer, dist2, best_dist2);
      best = (nearer & number) | (~nearer & best);
    }
    watch.await(best_dist2);
    if constexpr (L::kFlushes)
      if (watch.tripped()) {
        for (int i = 0; i < lanes; ++i) plain_nearest(p, first + i);
        watch.clear();
        continue;
      }
    __builtin_memcpy(dist2s, &best_dist2, sizeof best_dist2);
    __builtin_memcpy(bests, &best, sizeof best);
    for (int i = 0; i < lanes; ++i) {
      if (bests[i] == 0) continue;
      p.dist2[first + i] = dist2s[i];
      p.match[first + i] = p.tracks[bests[i] - 1];
    }
  }
}

}  // namespace
}  // namespace ox
