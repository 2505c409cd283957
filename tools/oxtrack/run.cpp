// SPDX-License-Identifier: MIT
#include "oxtrack/run.h"

#include <algorithm>
#include <limits>
#include <unordered_set>
#include <vector>

#include "common/numbers.h"
#include "oxtrack/tracker.h"

namespace tool {
namespace {

constexpr double kLibraryGate = 10;  // units, fixed in ox_tracker_process
constexpr int kDecimals = 3;         // of a pixel

// A capacity that is never reached. A track still alive before a frame was last matched at most max_misses + 1 frames
// ago, no two tracks share a detection, and tracks are born of this frame's detections: so there are never more of
// them than detections in that many frames.
std::int32_t needed_capacity(const std::vector<Detection>& detections, std::int32_t max_misses) {
  std::size_t begin = 0, most = 1;
  for (std::size_t end = 0; end < detections.size(); ++end) {
    while (detections[end].frame - detections[begin].frame > std::int64_t{max_misses} + 1) ++begin;
    most = std::max(most, end - begin + 1);
  }
  return static_cast<std::int32_t>(std::min<std::size_t>(most, std::numeric_limits<std::int32_t>::max()));
}

class Writer {
 public:
  Writer(const std::vector<std::string>& labels, double scale, std::string& out)
      : labels_(labels), scale_(scale), out_(out) {}

  void write(std::int64_t frame, const TrackRecord& track) {
    const auto id = static_cast<std::int64_t>(track.id);
    ids_.insert(id);
    append_whole(out_, frame);
    out_ += ',';
    append_whole(out_, id);
    for (const float value : {track.x1, track.y1, track.x2 - track.x1, track.y2 - track.y1}) {
      out_ += ',';
      append_fixed(out_, static_cast<double>(value) / scale_, kDecimals);
    }
    out_ += ',';
    append_shortest(out_, track.score);
    out_ += ',';
    out_ += labels_[static_cast<std::size_t>(track.label) - 1];
    out_ += ",-1,-1\n";
  }

  std::int64_t identities() const { return static_cast<std::int64_t>(ids_.size()); }

 private:
  const std::vector<std::string>& labels_;
  const double scale_;
  std::string& out_;
  std::unordered_set<std::int64_t> ids_;
};

}  // namespace

double scale_of(const Options& options) { return kLibraryGate / options.gate; }

Outcome track(const DetectionFile& file, const Options& options) {
  Outcome outcome;
  if (file.lines == 0) return outcome;
  outcome.frames = file.last_frame - file.first_frame + 1;

  // More than is needed would only cost memory: no result depends on a capacity that is not reached.
  const std::int32_t needed = needed_capacity(file.detections, options.tracker.max_misses);
  const std::int32_t capacity = std::min(needed, options.tracker.capacity.value_or(needed));
  Tracker tracker(options.tracker, capacity);
  Writer writer(file.labels, scale_of(options), outcome.results);

  std::vector<BoxRecord> boxes;
  auto next = file.detections.begin();
  const auto end = file.detections.end();
  for (std::int64_t frame = file.first_frame; frame <= file.last_frame; ++frame) {
    // An empty frame does nothing to a tracker without tracks, and there may be very many in a row.
    if (!tracker.has_tracks()) {
      if (next == end) break;
      frame = next->frame;
    }
    boxes.clear();
    std::int64_t count = 0;
    for (; next != end && next->frame == frame; ++next, ++count)
      if (count < capacity)
        boxes.push_back({static_cast<float>(next->label), next->x1, next->y1, next->x2, next->y2, next->score});
    outcome.dropped += std::max<std::int64_t>(0, count - capacity);
    boxes.push_back({});

    for (const TrackRecord& record : tracker.process(boxes))
      if (options.coasting || record.detection >= 0) writer.write(frame, record);
    outcome.homeless += tracker.homeless();
  }

  outcome.tracks = writer.identities();
  outcome.worst_seconds = tracker.worst_seconds();
  if (tracker.frames_processed() > 0)
    outcome.mean_seconds = tracker.total_seconds() / static_cast<double>(tracker.frames_processed());
  return outcome;
}

}  // namespace tool
