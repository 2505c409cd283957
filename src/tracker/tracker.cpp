// SPDX-License-Identifier: MIT
// The tracker's record: creation with the fixed motion model, parameters, release.
#include <cstdlib>
#include <cstring>

#include "tracker/ring.h"

namespace {

// Second-order position model on (cx, cy, prev_cx, prev_cy, w, h, prev_w, prev_h): the next value is twice the
// current one less the previous one, and the current one becomes the previous.
constexpr float kTransition[8 * 8] = {
    2, 0, -1, 0, 0, 0, 0, 0,
    0, 2, 0, -1, 0, 0, 0, 0,
    1, 0, 0, 0, 0, 0, 0, 0,
    0, 1, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 2, 0, -1, 0,
    0, 0, 0, 0, 0, 2, 0, -1,
    0, 0, 0, 0, 1, 0, 0, 0,
    0, 0, 0, 0, 0, 1, 0, 0,
};

// Picks cx, cy, w, h.
constexpr float kMeasurement[4 * 8] = {
    1, 0, 0, 0, 0, 0, 0, 0,
    0, 1, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 1, 0, 0, 0,
    0, 0, 0, 0, 0, 1, 0, 0,
};

constexpr float kProcessNoise = 0.1f;
constexpr float kMeasurementNoise = 1.0f;

ox_mat_t* copy_table(int32_t rows, int32_t cols, const float* table) {
  ox_mat_t* m = ox_mat_create(rows, cols, OX_F32);
  if (m) std::memcpy(m->data, table, sizeof(float) * static_cast<std::size_t>(rows * cols));
  return m;
}

ox_mat_t* scaled_identity(int32_t size, float value) {
  ox_mat_t* m = ox_mat_create(size, size, OX_F32);
  const float diagonal[8] = {value, value, value, value, value, value, value, value};
  if (m) ox_mat_setdiagonal(diagonal, m);
  return m;
}

template <class T> T* make_array(int32_t count) {
  // NOLINTNEXTLINE(bugprone-sizeof-expression): of a pointer where the array holds pointers
  return static_cast<T*>(std::calloc(count > 0 ? static_cast<std::size_t>(count) : 1, sizeof(T)));
}

// Into 0..1; what cannot be compared becomes 1.
float clamp_to_unit(float value) {
  if (!(value <= 1.0f)) return 1.0f;
  return value < 0.0f ? 0.0f : value;
}

int32_t at_least_one(int32_t value) { return value < 1 ? 1 : value; }

}  // namespace

ox_tracker_t* ox_tracker_create(uint32_t aux0, uint32_t aux1, int32_t count, int32_t confirm_hits,
                                int32_t max_misses, uint32_t any_label, float near_dist2,
                                float iou_threshold) {
  auto* t = static_cast<ox_tracker_t*>(std::calloc(1, sizeof(ox_tracker_t)));
  if (!t) return nullptr;
  t->next = t->prev = ox::ring_end(*t);
  t->next_id = 1;
  t->capacity = count;
  t->aux0 = aux0;
  t->aux1 = aux1;
  t->detections = make_array<ox_tracker_detection_t>(count);
  t->det_match = make_array<ox_track_t*>(count);
  t->det_dist2 = make_array<float>(count);
  t->transition_matrix = copy_table(8, 8, kTransition);
  t->measurement_matrix = copy_table(4, 8, kMeasurement);
  t->process_noise_cov = scaled_identity(8, kProcessNoise);
  t->measurement_noise_cov = scaled_identity(4, kMeasurementNoise);
  ox_tracker_set_params(t, at_least_one(confirm_hits), at_least_one(max_misses), any_label, clamp_to_unit(near_dist2),
                        clamp_to_unit(iou_threshold));
  if (t->detections && t->det_match && t->det_dist2 && t->transition_matrix && t->measurement_matrix &&
      t->process_noise_cov && t->measurement_noise_cov)
    return t;
  ox_mat_release(t->transition_matrix);
  ox_mat_release(t->measurement_matrix);
  ox_mat_release(t->process_noise_cov);
  ox_mat_release(t->measurement_noise_cov);
  ox_tracker_release(t);
  return nullptr;
}

void ox_tracker_set_params(ox_tracker_t* tracker, int32_t confirm_hits, int32_t max_misses,
                           uint32_t any_label, float near_dist2, float iou_threshold) {
  tracker->confirm_hits = confirm_hits;
  tracker->max_misses = max_misses;
  tracker->any_label = any_label;
  tracker->near_dist2 = near_dist2;
  tracker->iou_threshold = iou_threshold;
}

void ox_tracker_release(ox_tracker_t* tracker) {
  if (!tracker) return;
  // Tracks and model are left to the caller: part of the interface.
  std::free(tracker->detections);
  std::free(tracker->det_match);
  std::free(tracker->det_dist2);
  std::free(tracker);
}
