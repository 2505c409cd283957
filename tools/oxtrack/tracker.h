// SPDX-License-Identifier: MIT
// The library's tracker as an object that leaves nothing behind.
#pragma once

#include <ox.h>

#include <cstdint>
#include <vector>

#include "oxtrack/options.h"

namespace tool {

// One record each of what ox_tracker_process reads and writes.
struct BoxRecord {
  float label, x1, y1, x2, y2, score;
};
struct TrackRecord {
  float id, label, x1, y1, x2, y2, score, detection;
};

class Tracker {
 public:
  Tracker(const TrackerParameters& parameters, std::int32_t capacity);
  Tracker(const Tracker&) = delete;
  Tracker& operator=(const Tracker&) = delete;
  ~Tracker();

  // boxes ends with a record whose label is 0. What is returned is good until the next call.
  const std::vector<TrackRecord>& process(const std::vector<BoxRecord>& boxes);

  bool has_tracks() const { return tracker_->track_count > 0; }

  // Detections of the last frame that met no track and began none, for want of capacity.
  std::int64_t homeless() const;

  // Time spent inside the library.
  std::int64_t frames_processed() const { return frames_processed_; }
  double total_seconds() const { return total_seconds_; }
  double worst_seconds() const { return worst_seconds_; }

 private:
  ox_tracker_t* tracker_;
  std::vector<TrackRecord> room_;  // for capacity records
  std::vector<TrackRecord> reported_;
  std::int64_t frames_processed_ = 0;
  double total_seconds_ = 0;
  double worst_seconds_ = 0;
};

}  // namespace tool
