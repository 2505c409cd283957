// SPDX-License-Identifier: MIT
#include "oxtrack/tracker.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <new>

namespace tool {

static_assert(sizeof(BoxRecord) == 6 * sizeof(float) && sizeof(TrackRecord) == 8 * sizeof(float),
              "records are read and written as rows of floats");

Tracker::Tracker(const TrackerParameters& parameters, std::int32_t capacity)
    : tracker_(nullptr), room_(static_cast<std::size_t>(capacity)) {
  reported_.reserve(room_.size());
  tracker_ =
      ox_tracker_create(parameters.aux0, parameters.aux1, capacity, parameters.confirm_hits, parameters.max_misses,
                        parameters.any_label ? 1u : 0u, parameters.near_dist2, parameters.iou_threshold);
  if (!tracker_) throw std::bad_alloc();
}

Tracker::~Tracker() {
  // The release frees the record and its arrays; tracks, their filters and the shared model are left to the caller.
  for (ox_track_t* t = tracker_->next; static_cast<void*>(t) != static_cast<void*>(tracker_);) {
    ox_track_t* const next = t->next;
    ox_kalman_release(t->kf);
    ox_mat_release(t->meas);
    std::free(t);
    t = next;
  }
  ox_mat_release(tracker_->transition_matrix);
  ox_mat_release(tracker_->measurement_matrix);
  ox_mat_release(tracker_->process_noise_cov);
  ox_mat_release(tracker_->measurement_noise_cov);
  ox_tracker_release(tracker_);
}

const std::vector<TrackRecord>& Tracker::process(const std::vector<BoxRecord>& boxes) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  ox_tracker_process(tracker_, &boxes.front().label, &room_.front().id);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  ++frames_processed_;
  total_seconds_ += seconds;
  worst_seconds_ = std::max(worst_seconds_, seconds);

  const auto end = std::find_if(room_.begin(), room_.end(), [](const TrackRecord& r) { return r.id < 0; });
  reported_.assign(room_.begin(), end);
  return reported_;
}

std::int64_t Tracker::homeless() const {
  return std::count(tracker_->det_match, tracker_->det_match + tracker_->det_count, nullptr);
}

}  // namespace tool
