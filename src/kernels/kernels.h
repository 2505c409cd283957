// SPDX-License-Identifier: MIT
// The kernels: what is computed on bare arrays, once for each vector width, and the choice between the widths.
#pragma once

#include "lanes/scalars.h"

// What other sources define is inside the library too: found without a table of addresses.
#pragma GCC visibility push(hidden)
namespace ox {

// dst [m x n] = c + a * b, or c - a * b, for m, n and k above zero. In scalars, element (i, k) of a stands at
// a_row * i + a_col * k and (k, j) of b at b_row * k + b_col * j; b_row or b_col is 1, and where m is above 1 a_row or
// a_col too. Rows of c and dst are n apart; c may be null, or dst.
struct ProductArgs {
  std::ptrdiff_t m, n, k;
  const void* a;
  std::ptrdiff_t a_row, a_col;
  const void* b;
  std::ptrdiff_t b_row, b_col;
  const void* c;
  void* dst;
  bool subtract;
};

// The augmented matrix of an inverse, and behind it one row for exchanges.
constexpr int32_t kMostInverse = 40;
using InverseWork = float[kMostInverse + 1][2 * kMostInverse];

// A block of tracks, gathered, against all detections: dist2 and match of a detection are replaced where a track of the
// block is strictly nearer. With any_label the tracks' labels here are 0.
struct NearestArgs {
  int count;
  const float *cx, *cy;
  const int32_t* labels;
  ox_track_t* const* tracks;
  const ox_tracker_detection_t* detections;
  std::ptrdiff_t det_count;
  bool any_label;
  float* dist2;
  ox_track_t** match;
};

// The sizes of a tracker's filter, and its minuend of I - K*H.
constexpr int kStates = 8, kMeasurements = 4;
extern const float kIdentity[kStates][kStates];

struct Kernels {
  int bytes;  // of a vector
  // By depth. Arguments stand where the routines of the matrices have theirs, so that these move none.
  void (*product[8])(const ProductArgs& p);
  void (*add[8])(const void* a, const void* b, void* dst, std::ptrdiff_t count);
  void (*sub[8])(const void* a, const void* b, void* dst, std::ptrdiff_t count);
  void (*scale[8])(const void* factor, const void* src, void* dst, std::ptrdiff_t count);
  void (*negate[8])(const void* src, void* dst, std::ptrdiff_t count);
  void (*fill_ones[8])(void* dst, std::ptrdiff_t count);
  // By the logarithm of the scalar's size: dst [cols x rows] of src [rows x cols], which do not overlap.
  void (*transpose[4])(const void* src, std::ptrdiff_t rows, std::ptrdiff_t cols, void* dst);
  // dst = inverse of src, n x n floats each, by way of the work area; dst may be src.
  void (*gauss_jordan)(InverseWork& work, int32_t n, const void* src, void* dst);
  void (*nearest)(const NearestArgs& p);
  // Predict and, before and after the inverse, correct of a filter of kStates and kMeasurements. All its matrices and the
  // measurement are OX_F32 and have the shapes that ox.h gives them.
  void (*predict)(const ox_kalman_t& kf);
  void (*innovation_covariance)(const ox_kalman_t& kf);
  void (*update)(const ox_kalman_t& kf, const ox_mat_t& measurement);
};

extern const Kernels kernels_16;

#if defined(__x86_64__)
extern const Kernels kernels_32, kernels_64;
// The widest that this processor has and that is not above a number of bytes.
const Kernels* kernels_of(int bytes);
extern const Kernels* chosen_kernels;  // set at load; only the tests change it
inline const Kernels& kernels() { return *chosen_kernels; }
#else
inline const Kernels& kernels() { return kernels_16; }
#endif

}  // namespace ox
#pragma GCC visibility pop
