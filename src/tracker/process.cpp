// SPDX-License-Identifier: MIT
// One frame: read, predict, associate, give birth, update, report.
#include <cstdlib>
#include <cstring>

#include "kernels/kernels.h"
#include "lanes/rounding.h"
#include "tracker/ring.h"

namespace ox {
namespace {

constexpr std::ptrdiff_t kInputFloats = 6;   // label, x1, y1, x2, y2, score
constexpr std::ptrdiff_t kOutputFloats = 8;  // id, label, x1, y1, x2, y2, score, detection

constexpr float kGateDist2 = 100.0f;          // a centre moves less than 10 units between frames
constexpr float kRefusedDist2 = 0.0f;
constexpr int32_t kResetMisses = 3;      // a tentative track missed more often starts counting anew,
constexpr int32_t kDropMisses = 5;       // and missed more often than this is dropped
constexpr int32_t kReportMisses = 2;     // a confirmed track is reported up to here
constexpr int32_t kLastId = 1048574;
constexpr int32_t kTentative = -1;
constexpr int32_t kUnmatched = -1;

// Places of the box in the filter's state.
enum State { kCx = 0, kCy = 1, kPrevCx = 2, kPrevCy = 3, kW = 4, kH = 5, kPrevW = 6, kPrevH = 7 };

float* elements(const ox_mat_t* m) { return static_cast<float*>(m->data); }

int32_t increment(int32_t counter) { return counter == INT32_MAX ? counter : counter + 1; }

// Toward zero; outside the range the nearest integer, for NaN zero. The plain conversion is undefined there.
int32_t to_label(float value) {
  if (value >= 2147483648.0f) return INT32_MAX;
  if (value < -2147483648.0f) return INT32_MIN;
  return value == value ? static_cast<int32_t>(value) : 0;
}

void read_detections(ox_tracker_t& tracker, const float* boxes) {
  int32_t count = 0;
  for (; count < tracker.capacity && boxes[0] != 0.0f; ++count, boxes += kInputFloats) {
    const float x1 = boxes[1], y1 = boxes[2], x2 = boxes[3], y2 = boxes[4];
    ox_tracker_detection_t& d = tracker.detections[count];
    d.label = to_label(boxes[0]);
    d.cx = (x1 + x2) * 0.5f;
    d.cy = (y1 + y2) * 0.5f;
    d.w = x2 - x1;
    d.h = y2 - y1;
    std::memcpy(&d.score, &boxes[5], sizeof d.score);
  }
  tracker.det_count = count;
}

void predict(ox_track_t& t) {
  t.det_index = kUnmatched;
  if (t.id < 0) {
    t.pred_cx = t.cx;
    t.pred_cy = t.cy;
    t.pred_w = t.w;
    t.pred_h = t.h;
    return;
  }
  ox_kalman_predict(t.kf);
  const float* x = elements(t.kf->state_pre);
  t.pred_cx = x[kCx];
  t.pred_cy = x[kCy];
  t.pred_w = x[kW];
  t.pred_h = x[kH];
}

// Length shared by two intervals given by centre and size; at or below zero when they are apart.
float shared_length(float centre_a, float size_a, float centre_b, float size_b) {
  const float half_a = size_a * 0.5f, half_b = size_b * 0.5f;
  const float right_a = centre_a + half_a, right_b = centre_b + half_b;
  const float left_a = centre_a - half_a, left_b = centre_b - half_b;
  return (right_a < right_b ? right_a : right_b) - (left_a > left_b ? left_a : left_b);
}

// Intersection over union. Two empty boxes give 0 / 0, a NaN, which exceeds no threshold.
float overlap(const ox_track_t& t, const ox_tracker_detection_t& d) {
  const float width = shared_length(t.pred_cx, t.pred_w, d.cx, d.w);
  const float height = shared_length(t.pred_cy, t.pred_h, d.cy, d.h);
  const float intersection = width > 0.0f && height > 0.0f ? width * height : 0.0f;
  return intersection / ((d.w * d.h + t.pred_w * t.pred_h) - intersection);
}

// The nearest track that may take each detection, or null: written to det_match and det_dist2. Tracks are gathered into
// blocks, as a list cannot be read by vectors; the blocks come in list order, so on a tie the older track keeps its place.
void find_nearest(ox_tracker_t& tracker) {
  constexpr int kBlock = 256;
  float cx[kBlock], cy[kBlock];
  int32_t labels[kBlock];
  ox_track_t* tracks[kBlock];
  NearestArgs p{0, cx, cy, labels, tracks, tracker.detections, tracker.det_count, tracker.any_label != 0,
                tracker.det_dist2, tracker.det_match};
  for (int32_t i = 0; i < tracker.det_count; ++i) {
    tracker.det_match[i] = nullptr;
    tracker.det_dist2[i] = kGateDist2;
  }
  for (ox_track_t* t = tracker.next; t != ring_end(tracker); t = t->next) {
    cx[p.count] = t->pred_cx;
    cy[p.count] = t->pred_cy;
    labels[p.count] = p.any_label ? 0 : t->label;
    tracks[p.count] = t;
    if (++p.count < kBlock && t->next != ring_end(tracker)) continue;
    kernels().nearest(p);
    p.count = 0;
  }
}

void refuse(ox_tracker_t& tracker, int32_t i) {
  tracker.det_match[i] = nullptr;
  tracker.det_dist2[i] = kRefusedDist2;
}

// Gives detection i its nearest track, or refuses it. One greedy pass: who loses is not offered another track.
void settle(ox_tracker_t& tracker, int32_t i) {
  ox_track_t* const best = tracker.det_match[i];
  if (!best) return;
  const float dist2 = tracker.det_dist2[i];
  const float o = dist2 <= tracker.near_dist2 ? 1.0f : overlap(*best, tracker.detections[i]);
  if (!(o > tracker.iou_threshold)) return refuse(tracker, i);
  if (best->det_index >= 0) {
    if (!(tracker.det_dist2[best->det_index] > dist2)) return refuse(tracker, i);
    refuse(tracker, best->det_index);
  }
  best->det_index = i;
}

void give_birth(ox_tracker_t& tracker) {
  for (int32_t i = 0; i < tracker.det_count && tracker.track_count < tracker.capacity; ++i) {
    if (tracker.det_match[i]) continue;
    auto* t = static_cast<ox_track_t*>(std::calloc(1, sizeof(ox_track_t)));
    if (!t) continue;
    const ox_tracker_detection_t& d = tracker.detections[i];
    t->id = kTentative;
    t->label = d.label;
    t->cx = d.cx;
    t->cy = d.cy;
    t->w = d.w;
    t->h = d.h;
    t->score = d.score;
    t->det_index = i;
    tracker.det_match[i] = t;
    append(tracker, t);
  }
}

// Gives the track an identity and a filter. Without memory it stays tentative and comes here at its next match.
void confirm(ox_tracker_t& tracker, ox_track_t& t) {
  ox_kalman_t* kf = ox_kalman_create(8, 4, 1, tracker.transition_matrix, tracker.measurement_matrix,
                                     tracker.process_noise_cov, tracker.measurement_noise_cov);
  if (!kf) return;
  ox_mat_t* meas = ox_mat_create(4, 1, OX_F32);
  if (!meas) return ox_kalman_release(kf);
  t.kf = kf;
  t.meas = meas;
  t.id = tracker.next_id;
  tracker.next_id = t.id >= kLastId ? 1 : t.id + 1;
  ox_mat_setidentity(kf->error_cov_post);
  float* x = elements(kf->state_post);
  x[kCx] = t.cx;
  x[kCy] = t.cy;
  x[kPrevCx] = t.prev_cx;
  x[kPrevCy] = t.prev_cy;
  x[kW] = t.w;
  x[kH] = t.h;
  x[kPrevW] = t.prev_w;
  x[kPrevH] = t.prev_h;
}

void correct(ox_track_t& t) {
  float* z = elements(t.meas);
  z[0] = t.cx;
  z[1] = t.cy;
  z[2] = t.w;
  z[3] = t.h;
  ox_kalman_correct(t.kf, t.meas);
  const float* x = elements(t.kf->state_post);
  t.cx = x[kCx];
  t.cy = x[kCy];
  t.w = x[kW];
  t.h = x[kH];
}

void take_detection(ox_tracker_t& tracker, ox_track_t& t) {
  const ox_tracker_detection_t& d = tracker.detections[t.det_index];
  t.prev_cx = t.cx;
  t.prev_cy = t.cy;
  t.prev_w = t.w;
  t.prev_h = t.h;
  t.label = d.label;
  t.cx = d.cx;
  t.cy = d.cy;
  t.w = d.w;
  t.h = d.h;
  t.score = d.score;
  t.misses = 0;
  t.hits = increment(t.hits);
  if (t.hits < tracker.confirm_hits) return;
  // confirm_hits may have changed since: the count does not tell whether there is a filter yet.
  if (t.kf)
    correct(t);
  else
    confirm(tracker, t);
}

void remove(ox_tracker_t& tracker, ox_track_t& t) {
  ox_kalman_release(t.kf);  // null while tentative
  ox_mat_release(t.meas);
  unlink(tracker, &t);
  std::free(&t);
}

void miss(ox_tracker_t& tracker, ox_track_t& t) {
  t.misses = increment(t.misses);
  const bool tentative = t.id < 0;
  if (t.misses > tracker.max_misses || (tentative && t.misses > kDropMisses)) return remove(tracker, t);
  if (tentative && t.misses > kResetMisses) t.hits = 0;
}

void report(ox_tracker_t& tracker, float* results) {
  int32_t written = 0;
  for (ox_track_t* t = tracker.next; t != ring_end(tracker) && written < tracker.capacity; t = t->next) {
    if (t->id < 0 || t->misses > kReportMisses) continue;  // NOLINT(clang-analyzer-unix.Malloc): the freed are unlinked
    results[0] = static_cast<float>(t->id);
    results[1] = static_cast<float>(t->label);
    results[2] = t->cx - t->w * 0.5f;
    results[3] = t->cy - t->h * 0.5f;
    results[4] = t->cx + t->w * 0.5f;
    results[5] = t->cy + t->h * 0.5f;
    std::memcpy(&results[6], &t->score, sizeof t->score);
    results[7] = static_cast<float>(t->det_index);
    results += kOutputFloats;
    ++written;
  }
  if (written < tracker.capacity) results[0] = -1.0f;
}

}  // namespace
}  // namespace ox

void ox_tracker_process(ox_tracker_t* tracker, const float* boxes, float* results) {
  using namespace ox;
  read_detections(*tracker, boxes);
  for_each_track(*tracker, [](ox_track_t& t) { predict(t); });
  if (tracker->det_count > 0) find_nearest(*tracker);
  for (int32_t i = 0; i < tracker->det_count; ++i) settle(*tracker, i);
  give_birth(*tracker);
  for_each_track(*tracker, [&](ox_track_t& t) { t.det_index >= 0 ? take_detection(*tracker, t) : miss(*tracker, t); });
  if (results) report(*tracker, results);
}
