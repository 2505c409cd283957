// SPDX-License-Identifier: MIT
#include "tracker.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace reference {
namespace {

constexpr float kGateDist2 = 100.0f;
constexpr float kRefusedDist2 = 0.0f;
constexpr std::int32_t kLastId = 1048574;
constexpr std::int32_t kInt32Max = std::numeric_limits<std::int32_t>::max();

std::int32_t to_label(float value) {
  if (value != value) return 0;
  if (value >= 2147483648.0f) return kInt32Max;
  if (value <= -2147483648.0f) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(value);
}

std::uint32_t bits_of(const float* value) {
  std::uint32_t bits;
  std::memcpy(&bits, value, sizeof bits);
  return bits;
}

std::int32_t count_up(std::int32_t value) { return value == kInt32Max ? value : value + 1; }

float midpoint(float low, float high) {
  const float sum = low + high;
  return sum * 0.5f;
}

float low_edge(float centre, float size) {
  const float half = size * 0.5f;
  return centre - half;
}

float high_edge(float centre, float size) {
  const float half = size * 0.5f;
  return centre + half;
}

float distance2(const Box& a, const Box& b) {
  const float dx = a.cx - b.cx;
  const float dy = a.cy - b.cy;
  const float dx2 = dx * dx;
  const float dy2 = dy * dy;
  return dx2 + dy2;
}

float shared_length(float centre_a, float size_a, float centre_b, float size_b) {
  const float high = std::min(high_edge(centre_a, size_a), high_edge(centre_b, size_b));
  const float low = std::max(low_edge(centre_a, size_a), low_edge(centre_b, size_b));
  return high - low;
}

float intersection_over_union(const Box& track, const Box& det) {
  const float width = shared_length(track.cx, track.w, det.cx, det.w);
  const float height = shared_length(track.cy, track.h, det.cy, det.h);
  const float intersection = width > 0.0f && height > 0.0f ? width * height : 0.0f;
  const float det_area = det.w * det.h;
  const float track_area = track.w * track.h;
  const float areas = det_area + track_area;
  const float in_either = areas - intersection;
  return intersection / in_either;
}

}  // namespace

std::shared_ptr<const KalmanModel> Tracker::model() {
  static const std::shared_ptr<const KalmanModel> shared = [] {
    auto made = std::make_shared<KalmanModel>(8, 4);
    made->transition = {2, 0, -1, 0,  0, 0, 0,  0,   //
                        0, 2, 0,  -1, 0, 0, 0,  0,   //
                        1, 0, 0,  0,  0, 0, 0,  0,   //
                        0, 1, 0,  0,  0, 0, 0,  0,   //
                        0, 0, 0,  0,  2, 0, -1, 0,   //
                        0, 0, 0,  0,  0, 2, 0,  -1,  //
                        0, 0, 0,  0,  1, 0, 0,  0,   //
                        0, 0, 0,  0,  0, 1, 0,  0};
    made->measurement = {1, 0, 0, 0, 0, 0, 0, 0,  //
                         0, 1, 0, 0, 0, 0, 0, 0,  //
                         0, 0, 0, 0, 1, 0, 0, 0,  //
                         0, 0, 0, 0, 0, 1, 0, 0};
    for (std::size_t i = 0; i < 8; ++i) made->process_noise[i * 8 + i] = 0.1f;
    for (std::size_t i = 0; i < 4; ++i) made->measurement_noise[i * 4 + i] = 1.0f;
    return made;
  }();
  return shared;
}

Tracker::Tracker(std::int32_t count, std::int32_t confirm, std::int32_t misses, std::uint32_t any, float near,
                 float iou)
    : capacity(count), near_dist2(near), iou_threshold(iou), confirm_hits(confirm), max_misses(misses), any_label(any) {
  if (!(near_dist2 <= 1.0f)) near_dist2 = 1.0f;
  if (near_dist2 < 0.0f) near_dist2 = 0.0f;
  if (!(iou_threshold <= 1.0f)) iou_threshold = 1.0f;
  if (iou_threshold < 0.0f) iou_threshold = 0.0f;
  if (confirm_hits < 1) confirm_hits = 1;
  if (max_misses < 1) max_misses = 1;
  if (capacity > 0) {
    const auto slots = static_cast<std::size_t>(capacity);
    detections.resize(slots);
    det_match.resize(slots, nullptr);
    det_dist2.resize(slots, 0.0f);
  }
}

void Tracker::set_params(std::int32_t confirm, std::int32_t misses, std::uint32_t any, float near, float iou) {
  confirm_hits = confirm;
  max_misses = misses;
  any_label = any;
  near_dist2 = near;
  iou_threshold = iou;
}

void Tracker::fail_from(long nth, long how_many) {
  fail_first_ = allocations_ + nth;
  fail_count_ = how_many;
}

long Tracker::blocks() const {
  long blocks = 0;
  for (const Track& track : tracks) blocks += track.filter ? 3 : 1;
  return blocks;
}

bool Tracker::allocate() {
  ++allocations_;
  return allocations_ < fail_first_ || allocations_ >= fail_first_ + fail_count_;
}

std::ptrdiff_t Tracker::match_position(std::size_t i) const {
  std::ptrdiff_t position = 0;
  for (const Track& track : tracks) {
    if (&track == det_match[i]) return position;
    ++position;
  }
  return -1;
}

void Tracker::process(const float* boxes, float* results) {
  read(boxes);
  predict();
  for (Track& track : tracks) track.det_index = -1;
  associate();
  give_birth();
  for (auto t = tracks.begin(); t != tracks.end();) {
    if (t->det_index >= 0) {
      take_detection(*t);
      ++t;
    } else {
      t = survives_miss(*t) ? std::next(t) : tracks.erase(t);
    }
  }
  if (results != nullptr) write(results);
}

void Tracker::read(const float* boxes) {
  det_count = 0;
  while (det_count < capacity) {
    const float* const record = boxes + 6 * static_cast<std::size_t>(det_count);
    if (record[0] == 0.0f) break;
    Detection& det = detections[static_cast<std::size_t>(det_count)];
    det.label = to_label(record[0]);
    det.box.cx = midpoint(record[1], record[3]);
    det.box.cy = midpoint(record[2], record[4]);
    det.box.w = record[3] - record[1];
    det.box.h = record[4] - record[2];
    det.score = bits_of(record + 5);
    ++det_count;
    ++events.detections;
  }
  ++(det_count < capacity ? events.terminators : events.full_lists);
}

void Tracker::predict() {
  for (Track& track : tracks) {
    if (track.id >= 0) {
      track.filter->predict();
      const std::vector<float>& x = track.filter->state_pre;
      track.pred = Box{x[0], x[1], x[4], x[5]};
      ++events.predictions;
    } else {
      track.pred = track.box;
    }
  }
}

void Tracker::associate() {
  for (std::size_t i = 0; i < static_cast<std::size_t>(det_count); ++i) {
    const Detection& det = detections[i];
    Track* best = nullptr;
    float best_dist2 = kGateDist2;
    for (Track& track : tracks) {
      if (any_label == 0 && track.label != det.label) continue;
      const float d = distance2(track.pred, det.box);
      if (best != nullptr && d == best_dist2) ++events.distance_ties;
      if (d < best_dist2) {
        best = &track;
        best_dist2 = d;
      }
    }
    det_match[i] = best;
    det_dist2[i] = best_dist2;
    if (best == nullptr) {
      ++events.no_candidate;
      continue;
    }

    float overlap = 1.0f;
    if (best_dist2 <= near_dist2) {
      ++events.near_pairs;
    } else {
      overlap = intersection_over_union(best->pred, det.box);
      if (overlap != overlap) ++events.overlaps_nan;
      ++(overlap > iou_threshold ? events.overlaps_above : events.overlaps_refused);
    }

    bool accepted = overlap > iou_threshold;
    if (accepted && best->det_index >= 0) {
      const auto holder = static_cast<std::size_t>(best->det_index);
      accepted = det_dist2[holder] > best_dist2;
      if (accepted) {
        det_match[holder] = nullptr;
        det_dist2[holder] = kRefusedDist2;
        ++events.takeovers;
      } else {
        ++events.conflicts_lost;
        if (det_dist2[holder] == best_dist2) ++events.conflict_ties;
      }
    }
    if (accepted) {
      best->det_index = static_cast<std::int32_t>(i);
    } else {
      det_match[i] = nullptr;
      det_dist2[i] = kRefusedDist2;
    }
  }
}

void Tracker::give_birth() {
  for (std::size_t i = 0; i < static_cast<std::size_t>(det_count); ++i) {
    if (det_match[i] != nullptr) continue;
    if (static_cast<std::int32_t>(tracks.size()) >= capacity) {
      ++events.births_over_capacity;
      continue;
    }
    if (!allocate()) {
      ++events.births_failed;
      continue;
    }
    Track& track = tracks.emplace_back();
    track.label = detections[i].label;
    track.box = detections[i].box;
    track.score = detections[i].score;
    track.det_index = static_cast<std::int32_t>(i);
    det_match[i] = &track;
    ++events.births;
  }
}

void Tracker::take_detection(Track& track) {
  const Detection& det = detections[static_cast<std::size_t>(track.det_index)];
  if (track.label != det.label) ++events.label_changes;
  track.prev = track.box;
  track.label = det.label;
  track.box = det.box;
  track.score = det.score;
  track.misses = 0;
  track.hits = count_up(track.hits);

  if (track.hits < confirm_hits) {
    if (track.id >= 0) ++events.raw_updates_confirmed;
  } else if (track.id >= 0) {
    correct(track);
  } else if (confirm(track)) {
    ++events.confirmations;
    if (track.hits > confirm_hits) ++events.late_confirmations;
  } else {
    ++events.confirmations_failed;
  }
}

bool Tracker::confirm(Track& track) {
  // First the filter, then the measurement, which is not asked for when there is no filter.
  if (!allocate()) return false;
  if (!allocate()) return false;
  track.id = next_id;
  next_id = next_id >= kLastId ? 1 : next_id + 1;
  if (next_id == 1) ++events.identity_wraps;
  track.filter.emplace(8, 4, model());
  for (std::size_t i = 0; i < 8; ++i) track.filter->error_cov_post[i * 8 + i] = 1.0f;
  track.filter->state_post = {track.box.cx, track.box.cy, track.prev.cx, track.prev.cy,
                              track.box.w,  track.box.h,  track.prev.w,  track.prev.h};
  return true;
}

void Tracker::correct(Track& track) {
  track.meas = {track.box.cx, track.box.cy, track.box.w, track.box.h};
  track.filter->correct(track.meas);
  const std::vector<float>& x = track.filter->state_post;
  track.box = Box{x[0], x[1], x[4], x[5]};
  ++events.corrections;
}

bool Tracker::survives_miss(Track& track) {
  track.misses = count_up(track.misses);
  const bool tentative = track.id < 0;
  if (track.misses > max_misses) {
    ++(tentative ? events.deaths_tentative : events.deaths_confirmed);
    return false;
  }
  if (tentative && track.misses > 5) {
    ++events.deaths_tentative_old;
    return false;
  }
  if (tentative && track.misses > 3) {
    track.hits = 0;
    ++events.hits_reset;
  }
  return true;
}

void Tracker::write(float* results) {
  std::int32_t written = 0;
  for (const Track& track : tracks) {
    if (written >= capacity) break;
    if (track.id < 0) continue;
    if (track.misses > 2) {
      ++events.unreported;
      continue;
    }
    float* const record = results + 8 * static_cast<std::size_t>(written);
    record[0] = static_cast<float>(track.id);
    record[1] = static_cast<float>(track.label);
    record[2] = low_edge(track.box.cx, track.box.w);
    record[3] = low_edge(track.box.cy, track.box.h);
    record[4] = high_edge(track.box.cx, track.box.w);
    record[5] = high_edge(track.box.cy, track.box.h);
    std::memcpy(record + 6, &track.score, sizeof track.score);
    record[7] = static_cast<float>(track.det_index);
    ++written;
    ++events.records;
  }
  if (written < capacity) {
    results[8 * static_cast<std::size_t>(written)] = -1.0f;
    ++events.end_marks;
  } else if (capacity > 0) {
    ++events.full_results;
  }
}

}  // namespace reference
