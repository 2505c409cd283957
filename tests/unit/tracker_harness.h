// SPDX-License-Identifier: MIT
// What the tracker's tests share: boxes by centre, a tracker that frees what its release leaves behind, and the
// comparison of its whole state with the reference.
#ifndef OX_TESTS_UNIT_TRACKER_HARNESS_H
#define OX_TESTS_UNIT_TRACKER_HARNESS_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "reference/tracker.h"
#include "ox.h"

namespace harness {

constexpr std::int32_t kInt32Max = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kInt32Min = std::numeric_limits<std::int32_t>::min();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

inline std::uint32_t bits_of(float value) {
  std::uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

inline float float_of(std::uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

// Equal bytes, all NaNs being one value.
inline bool same_value(float a, float b) { return bits_of(a) == bits_of(b) || (a != a && b != b); }

inline bool same_values(const float* a, const std::vector<float>& b) {
  if (b.empty() || std::memcmp(a, b.data(), b.size() * sizeof(float)) == 0) return true;
  for (std::size_t i = 0; i < b.size(); ++i) {
    if (!same_value(a[i], b[i])) return false;
  }
  return true;
}

inline float* floats(ox_mat_t* m) { return static_cast<float*>(m->data); }
inline const float* floats(const ox_mat_t* m) { return static_cast<const float*>(m->data); }

struct Record {
  float label;
  float x1;
  float y1;
  float x2;
  float y2;
  std::uint32_t score;
};

// Coordinates that are multiples of 1/2 and small come back as exactly this centre and size.
inline Record centred(float label, float cx, float cy, float w, float h, std::uint32_t score = 0) {
  return Record{label, cx - w * 0.5f, cy - h * 0.5f, cx + w * 0.5f, cy + h * 0.5f, score};
}

inline void append(std::vector<float>& list, const Record& record) {
  list.insert(list.end(), {record.label, record.x1, record.y1, record.x2, record.y2, float_of(record.score)});
  // The score is moved through memory once more: a signalling NaN may not survive a copy by value.
  std::memcpy(&list.back(), &record.score, sizeof record.score);
}

inline std::vector<float> box_list(const std::vector<Record>& records) {
  std::vector<float> list;
  for (const Record& record : records) append(list, record);
  list.push_back(0.0f);
  return list;
}

inline bool is_head(const ox_tracker_t* tracker, const ox_track_t* t) {
  return static_cast<const void*>(t) == static_cast<const void*>(tracker);
}

inline std::vector<ox_track_t*> tracks_of(const ox_tracker_t* tracker) {
  std::vector<ox_track_t*> tracks;
  for (ox_track_t* t = tracker->next; !is_head(tracker, t); t = t->next) tracks.push_back(t);
  return tracks;
}

// ox_tracker_release leaves tracks, filters, measurements and the model to the caller.
struct ReleaseEverything {
  void operator()(ox_tracker_t* tracker) const {
    for (ox_track_t* t : tracks_of(tracker)) {
      ox_kalman_release(t->kf);
      ox_mat_release(t->meas);
      std::free(t);
    }
    ox_mat_release(tracker->transition_matrix);
    ox_mat_release(tracker->measurement_matrix);
    ox_mat_release(tracker->process_noise_cov);
    ox_mat_release(tracker->measurement_noise_cov);
    ox_tracker_release(tracker);
  }
};

using TrackerPtr = std::unique_ptr<ox_tracker_t, ReleaseEverything>;

struct Params {
  std::int32_t count = 10;
  std::int32_t confirm_hits = 3;
  std::int32_t max_misses = 10;
  std::uint32_t any_label = 0;
  float near_dist2 = 1.0f;
  float iou_threshold = 0.3f;
};

inline TrackerPtr make_tracker(const Params& p) {
  return TrackerPtr(ox_tracker_create(0, 0, p.count, p.confirm_hits, p.max_misses, p.any_label, p.near_dist2,
                                      p.iou_threshold));
}

// Room for capacity records and one float more, which must keep its canary.
class Results {
 public:
  static constexpr std::uint32_t kCanary = 0xC0FFEE11u;

  explicit Results(std::int32_t capacity)
      : capacity_(capacity > 0 ? static_cast<std::size_t>(capacity) : 0),
        values_(8 * capacity_ + 1, float_of(kCanary)) {}

  float* data() { return values_.data(); }
  float at(std::size_t record, std::size_t field) const { return values_[8 * record + field]; }
  bool untouched(std::size_t from_float) const {
    for (std::size_t i = from_float; i < values_.size(); ++i) {
      if (bits_of(values_[i]) != kCanary) return false;
    }
    return true;
  }

  // Records before the end mark.
  std::size_t size() const {
    std::size_t n = 0;
    while (n < capacity_ && values_[8 * n] != -1.0f) ++n;
    return n;
  }

 private:
  std::size_t capacity_;
  std::vector<float> values_;
};

inline Results frame(const TrackerPtr& tracker, const std::vector<Record>& records) {
  Results results(tracker->capacity);
  const std::vector<float> list = box_list(records);
  ox_tracker_process(tracker.get(), list.data(), results.data());
  return results;
}

// The ring is whole: each link has its counterpart and the count is right.
inline bool ring_is_whole(const ox_tracker_t* tracker) {
  std::int32_t count = 0;
  const void* before = tracker;
  for (const ox_track_t* t = tracker->next; !is_head(tracker, t); t = t->next) {
    if (static_cast<const void*>(t->prev) != before) return false;
    before = t;
    ++count;
  }
  return static_cast<const void*>(tracker->prev) == before && count == tracker->track_count;
}

namespace detail {

inline bool same_matrix(const ox_mat_t* m, std::int32_t rows, std::int32_t cols, const std::vector<float>& values) {
  return m->type == OX_F32 && m->rows == rows && m->cols == cols && m->step == cols * 4 &&
         same_values(floats(m), values);
}

inline std::string filter_difference(const ox_tracker_t& tracker, const ox_kalman_t& kf, const reference::Kalman& ref) {
  if (kf.state_dim != 8 || kf.meas_dim != 4) return "dimensions";
  if (!same_matrix(kf.state_pre, 8, 1, ref.state_pre)) return "state_pre";
  if (!same_matrix(kf.state_post, 8, 1, ref.state_post)) return "state_post";
  if (!same_matrix(kf.error_cov_pre, 8, 8, ref.error_cov_pre)) return "error_cov_pre";
  if (!same_matrix(kf.error_cov_post, 8, 8, ref.error_cov_post)) return "error_cov_post";
  if (!same_matrix(kf.gain, 8, 4, ref.gain)) return "gain";
  if (!same_matrix(kf.temp1, 8, 8, ref.temp1)) return "temp1";
  if (!same_matrix(kf.temp2, 8, 4, ref.temp2)) return "temp2";
  if (!same_matrix(kf.temp3, 4, 4, ref.temp3)) return "temp3";
  if (!same_matrix(kf.temp4, 4, 4, ref.temp4)) return "temp4";
  if (!same_matrix(kf.temp5, 4, 1, ref.temp5)) return "temp5";
  if (kf.transition_matrix != tracker.transition_matrix || kf.measurement_matrix != tracker.measurement_matrix ||
      kf.process_noise_cov != tracker.process_noise_cov || kf.measurement_noise_cov != tracker.measurement_noise_cov)
    return "model pointers";
  return {};
}

inline std::string track_difference(const ox_tracker_t& tracker, const ox_track_t& t, const reference::Track& ref) {
  if (t.id != ref.id) return "id";
  if (t.label != ref.label) return "label";
  if (!same_value(t.cx, ref.box.cx)) return "cx";
  if (!same_value(t.cy, ref.box.cy)) return "cy";
  if (!same_value(t.w, ref.box.w)) return "w";
  if (!same_value(t.h, ref.box.h)) return "h";
  if (t.score != ref.score) return "score";
  if (!same_value(t.prev_cx, ref.prev.cx)) return "prev_cx";
  if (!same_value(t.prev_cy, ref.prev.cy)) return "prev_cy";
  if (!same_value(t.prev_w, ref.prev.w)) return "prev_w";
  if (!same_value(t.prev_h, ref.prev.h)) return "prev_h";
  if (!same_value(t.pred_cx, ref.pred.cx)) return "pred_cx";
  if (!same_value(t.pred_cy, ref.pred.cy)) return "pred_cy";
  if (!same_value(t.pred_w, ref.pred.w)) return "pred_w";
  if (!same_value(t.pred_h, ref.pred.h)) return "pred_h";
  if (t.det_index != ref.det_index) return "det_index";
  if (t.misses != ref.misses) return "misses";
  if (t.hits != ref.hits) return "hits";
  if ((t.kf != nullptr) != ref.filter.has_value()) return "kf";
  if ((t.meas != nullptr) != ref.filter.has_value()) return "meas";
  if (!ref.filter) return {};
  if (t.meas->type != OX_F32 || t.meas->rows != 4 || t.meas->cols != 1 || t.meas->step != 4) return "meas header";
  if (!same_values(floats(t.meas), ref.meas)) return "meas contents";
  const std::string part = filter_difference(tracker, *t.kf, *ref.filter);
  return part.empty() ? part : "kf." + part;
}

}  // namespace detail

// Names the first part of the state in which library and reference differ; empty when there is none.
inline std::string difference(const ox_tracker_t& tracker, const reference::Tracker& ref) {
  if (!ring_is_whole(&tracker)) return "ring";
  if (static_cast<std::size_t>(tracker.track_count) != ref.tracks.size()) return "track_count";
  if (tracker.next_id != ref.next_id) return "next_id";
  if (tracker.capacity != ref.capacity) return "capacity";
  if (tracker.det_count != ref.det_count) return "det_count";
  if (!same_value(tracker.near_dist2, ref.near_dist2)) return "near_dist2";
  if (!same_value(tracker.iou_threshold, ref.iou_threshold)) return "iou_threshold";
  if (tracker.confirm_hits != ref.confirm_hits) return "confirm_hits";
  if (tracker.max_misses != ref.max_misses) return "max_misses";
  if (tracker.any_label != ref.any_label) return "any_label";

  const auto model = reference::Tracker::model();
  if (!detail::same_matrix(tracker.transition_matrix, 8, 8, model->transition)) return "transition_matrix";
  if (!detail::same_matrix(tracker.measurement_matrix, 4, 8, model->measurement)) return "measurement_matrix";
  if (!detail::same_matrix(tracker.process_noise_cov, 8, 8, model->process_noise)) return "process_noise_cov";
  if (!detail::same_matrix(tracker.measurement_noise_cov, 4, 4, model->measurement_noise))
    return "measurement_noise_cov";

  const std::vector<ox_track_t*> tracks = tracks_of(&tracker);
  std::size_t position = 0;
  for (const reference::Track& expected : ref.tracks) {
    const std::string part = detail::track_difference(tracker, *tracks[position], expected);
    if (!part.empty()) return "track " + std::to_string(position) + " " + part;
    ++position;
  }

  for (std::size_t i = 0; i < ref.detections.size(); ++i) {
    const ox_tracker_detection_t& det = tracker.detections[i];
    const reference::Detection& expected = ref.detections[i];
    const auto of_detection = [i](const char* what) {
      return std::string(what) + " of detection " + std::to_string(i);
    };
    if (det.label != expected.label) return of_detection("label");
    if (!same_value(det.cx, expected.box.cx) || !same_value(det.cy, expected.box.cy)) return of_detection("centre");
    if (!same_value(det.w, expected.box.w) || !same_value(det.h, expected.box.h)) return of_detection("size");
    if (det.score != expected.score) return of_detection("score");
    if (!same_value(tracker.det_dist2[i], ref.det_dist2[i])) return of_detection("det_dist2");
  }
  for (std::size_t i = 0; i < static_cast<std::size_t>(ref.det_count); ++i) {
    const std::ptrdiff_t expected = ref.match_position(i);
    const ox_track_t* const match = expected < 0 ? nullptr : tracks[static_cast<std::size_t>(expected)];
    if (tracker.det_match[i] != match) return "det_match of detection " + std::to_string(i);
  }
  return {};
}

// Names the first of the results' floats that differ; empty when there is none.
inline std::string result_difference(const std::vector<float>& got, const std::vector<float>& want) {
  for (std::size_t i = 0; i < want.size(); ++i) {
    // A corner is the outcome of arithmetic; everything else was copied, converted or never written.
    const bool corner = i % 8 >= 2 && i % 8 <= 5;
    const bool same =
        corner ? same_value(got[i], want[i]) : std::memcmp(&got[i], &want[i], sizeof(float)) == 0;
    if (!same) return "float " + std::to_string(i) + " of the results";
  }
  return {};
}

}  // namespace harness

#endif
