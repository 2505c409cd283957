// SPDX-License-Identifier: MIT
// The box tracker in plain loops over a list of tracks. Positions in the list take the place of addresses.
#ifndef OX_TESTS_REFERENCE_TRACKER_H
#define OX_TESTS_REFERENCE_TRACKER_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <vector>

#include "kalman.h"

namespace reference {

struct Box {
  float cx = 0.0f;
  float cy = 0.0f;
  float w = 0.0f;
  float h = 0.0f;
};

struct Detection {
  std::int32_t label = 0;
  Box box;
  std::uint32_t score = 0;
};

struct Track {
  std::int32_t id = -1;
  std::int32_t label = 0;
  Box box;
  std::uint32_t score = 0;
  Box prev;
  Box pred;
  std::int32_t det_index = -1;
  std::int32_t misses = 0;
  std::int32_t hits = 0;
  std::optional<Kalman> filter;
  std::vector<float> meas;  // empty until the first correction: a new measurement matrix has no defined contents
};

// How often each branch of a frame was taken, for tests that must not pass by never getting there.
struct TrackerEvents {
  long detections = 0;
  long terminators = 0;      // frames whose list ended before capacity
  long full_lists = 0;       // frames whose list ended at capacity
  long predictions = 0;
  long no_candidate = 0;
  long near_pairs = 0;       // overlap taken as 1
  long overlaps_above = 0;   // overlap computed and above the threshold
  long overlaps_refused = 0; // overlap at or below the threshold
  long overlaps_nan = 0;
  long distance_ties = 0;    // a later track as near as the best one so far
  long takeovers = 0;
  long conflicts_lost = 0;   // the track keeps the earlier detection
  long conflict_ties = 0;    // lost with equal distances
  long births = 0;
  long births_over_capacity = 0;
  long births_failed = 0;
  long label_changes = 0;
  long confirmations = 0;
  long confirmations_failed = 0;
  long late_confirmations = 0;  // with more hits than required
  long identity_wraps = 0;
  long corrections = 0;
  long raw_updates_confirmed = 0;  // a confirmed track below a raised confirm_hits
  long hits_reset = 0;
  long deaths_tentative = 0;       // by max_misses
  long deaths_tentative_old = 0;   // by the fixed limit
  long deaths_confirmed = 0;
  long records = 0;
  long unreported = 0;
  long end_marks = 0;
  long full_results = 0;
};

class Tracker {
 public:
  Tracker(std::int32_t count, std::int32_t confirm_hits, std::int32_t max_misses, std::uint32_t any_label,
          float near_dist2, float iou_threshold);

  void set_params(std::int32_t confirm_hits, std::int32_t max_misses, std::uint32_t any_label, float near_dist2,
                  float iou_threshold);

  // boxes: six floats a record, closed by a label of 0 unless capacity records follow one another. results: null or
  // capacity records of eight floats; may be the storage of boxes.
  void process(const float* boxes, float* results);

  // Allocations number nth (1 is the next one) to nth + how_many - 1 fail.
  void fail_from(long nth, long how_many);

  // Allocations asked for so far, failed ones included.
  long allocations() const { return allocations_; }

  // Blocks that the tracks hold: the track itself, its filter, its measurement.
  long blocks() const;

  // Position in `tracks` of the track that detection i was given to, or -1.
  std::ptrdiff_t match_position(std::size_t i) const;

  std::list<Track> tracks;  // in order of birth
  std::int32_t next_id = 1;
  std::int32_t capacity;
  std::int32_t det_count = 0;
  float near_dist2;
  float iou_threshold;
  std::int32_t confirm_hits;
  std::int32_t max_misses;
  std::uint32_t any_label;
  std::vector<Detection> detections;     // [capacity], entries at and above det_count are of earlier frames
  std::vector<const Track*> det_match;   // [capacity], likewise; those may point to deleted tracks
  std::vector<float> det_dist2;          // [capacity], likewise
  TrackerEvents events;

  static std::shared_ptr<const KalmanModel> model();

 private:
  bool allocate();
  void read(const float* boxes);
  void predict();
  void associate();
  void give_birth();
  void take_detection(Track& track);
  bool confirm(Track& track);
  void correct(Track& track);
  bool survives_miss(Track& track);
  void write(float* results);

  long allocations_ = 0;
  long fail_first_ = 0;
  long fail_count_ = 0;
};

}  // namespace reference

#endif
