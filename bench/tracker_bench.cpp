// SPDX-License-Identifier: MIT
// A frame of the tracker, every object detected, against the number of objects. Sequences of 300 frames; the time is
// the median over a sequence's frames, so births at its start do not count.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "contest.h"

namespace bench {
namespace {

constexpr int kFrames = 300, kConfirmHits = 3;
struct Box {
  float label, x1, y1, x2, y2, score;
};
struct Report {
  float id, label, x1, y1, x2, y2, score, detection;
};

// Objects stand on a square grid, 60 apart, and walk to and fro by up to 10 in each direction, at up to 1 a frame: far
// from the neighbour's gate.
class Scene {
 public:
  explicit Scene(int objects)
      : columns_(static_cast<int>(std::ceil(std::sqrt(objects)))), boxes_(static_cast<std::size_t>(objects) + 1) {}

  const std::vector<Box>& frame(int frame) {
    for (std::size_t i = 0; i + 1 < boxes_.size(); ++i) {
      const int object = static_cast<int>(i);
      const float x = static_cast<float>(object % columns_) * 60 + walk(frame, object, 1 + object % 4);
      const float y = static_cast<float>(object / columns_) * 60 + walk(frame, object * 7, 1 + object % 3);
      boxes_[i] = {1, x, y, x + 24, y + 32, 0.9f};
    }
    boxes_.back() = {};
    return boxes_;
  }

 private:
  // To and fro in 80 frames, a quarter of the speed a step.
  static float walk(int frame, int phase, int speed) {
    const int step = (frame + phase) % 80;
    return 0.25f * static_cast<float>(speed * (step < 40 ? step : 80 - step));
  }
  int columns_;
  std::vector<Box> boxes_;
};

class Tracker {
 public:
  explicit Tracker(int objects)
      : tracker_(ox_tracker_create(0, 0, objects, kConfirmHits, 5, 0, 1.0f, 0.1f)),
        reports_(static_cast<std::size_t>(objects)) {
    if (!tracker_) std::abort();
  }
  Tracker(const Tracker&) = delete;
  Tracker& operator=(const Tracker&) = delete;
  ~Tracker() {
    for (ox_track_t* track = tracker_->next; static_cast<void*>(track) != tracker_;) {
      ox_track_t* next = track->next;
      ox_kalman_release(track->kf);
      ox_mat_release(track->meas);
      std::free(track);
      track = next;
    }
    for (ox_mat_t* m : {tracker_->transition_matrix, tracker_->measurement_matrix, tracker_->process_noise_cov,
                        tracker_->measurement_noise_cov})
      ox_mat_release(m);
    ox_tracker_release(tracker_);
  }
  void process(const std::vector<Box>& boxes) { ox_tracker_process(tracker_, &boxes[0].label, &reports_[0].id); }
  const std::vector<Report>& reports() const { return reports_; }

 private:
  ox_tracker_t* tracker_;
  std::vector<Report> reports_;
};

// Every object must keep one track of its own, and a track's box must lie at its detection. The corrected box stands
// between prediction and detection; the prediction follows the last step, which the next one differs from by at most
// 2 where an object turns, and the filter's own lag is below that again: 4.
void check(int objects) {
  Scene scene(objects);
  Tracker tracker(objects);
  std::vector<float> ids(static_cast<std::size_t>(objects));
  for (int frame = 0; frame < 100; ++frame) {
    const std::vector<Box>& boxes = scene.frame(frame);
    tracker.process(boxes);
    if (frame < kConfirmHits) continue;
    std::vector<bool> seen(ids.size());
    for (const Report& r : tracker.reports()) {
      const bool is_detected = r.detection >= 0 && r.detection < static_cast<float>(objects);
      const auto i = is_detected ? static_cast<std::size_t>(r.detection) : 0;
      const double off = std::max(std::max(std::fabs(static_cast<double>(r.x1) - static_cast<double>(boxes[i].x1)),
                                           std::fabs(static_cast<double>(r.y1) - static_cast<double>(boxes[i].y1))),
                                  std::max(std::fabs(static_cast<double>(r.x2) - static_cast<double>(boxes[i].x2)),
                                           std::fabs(static_cast<double>(r.y2) - static_cast<double>(boxes[i].y2))));
      const bool is_right = is_detected && !seen[i] && r.id > 0 && off <= 4 &&
                            (frame == kConfirmHits || r.id == ids[i]);
      if (!is_right) {
        std::fprintf(stderr, "tracker, %d objects, frame %d: track %g, detection %g, off by %g is wrong\n", objects,
                     frame, static_cast<double>(r.id), static_cast<double>(r.detection), off);
        std::exit(1);
      }
      seen[i] = true;
      ids[i] = r.id;
    }
  }
}

double median_frame_seconds(int objects) {
  using Clock = std::chrono::steady_clock;
  Scene scene(objects);
  Tracker tracker(objects);
  std::vector<double> seconds;
  for (int frame = 0; frame < kFrames; ++frame) {
    const std::vector<Box>& boxes = scene.frame(frame);
    const Clock::time_point before = Clock::now();
    tracker.process(boxes);
    seconds.push_back(std::chrono::duration<double>(Clock::now() - before).count());
  }
  std::nth_element(seconds.begin(), seconds.begin() + kFrames / 2, seconds.end());
  return seconds[kFrames / 2];
}

}  // namespace

void register_contests() {
  for (const int objects : {10, 30, 100, 300, 1000, 2000, 4000})
    benchmark::RegisterBenchmark(("tracker/" + std::to_string(objects) + "/ox").c_str(),
                                 [objects, checked = false](benchmark::State& state) mutable {
                                   if (!checked) check(objects);
                                   checked = true;
                                   for (auto _ : state) state.SetIterationTime(median_frame_seconds(objects));
                                 })
        ->UseManualTime()
        ->Iterations(std::max(1, 300 / objects));
}

}  // namespace bench
