// SPDX-License-Identifier: MIT
// An input is a vector width, the parameters of a tracker and then steps: frames, new parameters, fields that a caller
// may write, allocations that fail. After each frame the whole state is compared with the reference's.
#include <algorithm>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "alloc_hook.h"
#include "guarded.h"
#include "input.h"
#include "ox.h"
#include "unit/tracker_harness.h"

namespace {

using fuzz::Guarded;
using fuzz::Input;
using harness::float_of;
using harness::kInfinity;
using harness::kInt32Max;
using harness::kInt32Min;
using harness::kNaN;
using harness::Params;
using harness::Record;

constexpr std::int32_t kMostCapacity = 12;
constexpr int kMostFrames = 24;
constexpr std::size_t kBoxFloats = 6, kResultFloats = 8;

class Session {
 public:
  Session(Input& input, Guarded& boxes, Guarded& results)
      : input_(input), boxes_(boxes), results_(results), params_(creation_params()) {
    tracker_ = harness::make_tracker(params_);
    if (!tracker_) fuzz::fail("no tracker");
    ref_ = std::make_unique<reference::Tracker>(params_.count, params_.confirm_hits, params_.max_misses,
                                                params_.any_label, params_.near_dist2, params_.iou_threshold);
  }

  void run() {
    check("creation");
    for (frame_ = 0; frame_ < kMostFrames && !input_.empty();) {
      const std::uint8_t step = input_.byte();
      if (step < 8) {
        change_params();
      } else if (step < 16) {
        poke();
      } else if (step < 32) {
        // Nothing is seen for a while.
        for (int n = step % 8; n >= 0; --n) process({}, false);
      } else {
        process(records(static_cast<std::size_t>(step % 8)), step >= 240);
      }
    }
  }

 private:
  Params creation_params() {
    Params p;
    p.count = input_.between(-1, kMostCapacity);
    p.confirm_hits = input_.between(-1, 4);
    p.max_misses = input_.between(-1, 8);
    p.any_label = input_.pick({0u, 0u, 1u, 0x80000000u});
    p.near_dist2 = number({1.0f, 0.0f, 0.25f, 1.0f, -1.0f, 5.0f, kNaN});
    p.iou_threshold = number({0.3f, 0.0f, 0.1f, 0.5f, 1.0f, -0.5f, kNaN});
    return p;
  }

  void change_params() {
    const std::int32_t confirm_hits = input_.pick({1, 2, 3, 4, 9, 0, -5, kInt32Min, kInt32Max});
    const std::int32_t max_misses = input_.pick({1, 2, 3, 5, 7, 10, 0, -1, kInt32Min, kInt32Max});
    const std::uint32_t any_label = input_.byte() % 2;
    const float near_dist2 = number({1.0f, 0.0f, 0.25f, 25.0f, 99.0f, 100.0f, 1e9f, -1.0f, -0.0f, kInfinity, kNaN});
    const float iou_threshold = number({0.3f, 0.1f, 0.0f, -0.0f, 0.5f, 1.0f, 1.5f, -0.5f, kInfinity, -kInfinity, kNaN});
    ox_tracker_set_params(tracker_.get(), confirm_hits, max_misses, any_label, near_dist2, iou_threshold);
    ref_->set_params(confirm_hits, max_misses, any_label, near_dist2, iou_threshold);
  }

  // One of those given, or any.
  template <std::size_t n> float number(const float (&choices)[n]) {
    const std::uint8_t byte = input_.byte();
    return byte < 240 ? choices[byte % n] : float_of(input_.word());
  }

  // Fields that a caller may write: counters near their end, the next identity, the current box of a track.
  void poke() {
    const std::uint8_t what = input_.byte();
    if (what % 4 == 0 || ref_->tracks.empty()) {
      tracker_->next_id = ref_->next_id = 1048572 + what / 4 % 5;
      return;
    }
    const std::vector<ox_track_t*> tracks = harness::tracks_of(tracker_.get());
    const std::size_t position = what / 4 % tracks.size();
    ox_track_t& t = *tracks[position];
    reference::Track& expected = *std::next(ref_->tracks.begin(), static_cast<std::ptrdiff_t>(position));
    if (what % 4 == 1) t.hits = expected.hits = kInt32Max - what / 128;
    if (what % 4 == 2) t.misses = expected.misses = kInt32Max - what / 128;
    if (what % 4 == 3) t.w = expected.box.w = number({kNaN, kInfinity, -3.0f, 0.0f});
  }

  float label() { return number({1.0f, 2.0f, 1.0f, 2.0f, 3.0f, -7.5f, 0.3f, 3e9f, -3e9f, kNaN, -kInfinity, 1e-45f}); }

  // Quarters of a unit, so that distances tie and meet the gate exactly; a byte reaches farther than the gate does.
  float quarters() { return static_cast<float>(static_cast<std::int8_t>(input_.byte())) * 0.25f; }

  Record record() {
    const std::uint8_t way = input_.byte();
    if (way >= 232) {
      // Any six numbers.
      Record r{};
      r.label = label();
      for (float* corner : {&r.x1, &r.y1, &r.x2, &r.y2})
        *corner = number({0.0f, -0.0f, kNaN, kInfinity, -kInfinity, 3e38f, -3e38f, 1e19f, 1e-45f, 16777217.0f, 4.0f});
      r.score = input_.word();
      return r;
    }
    if (way >= 128 && !ref_->tracks.empty()) {
      // Beside a track: where it is, or where it will be expected.
      const auto position = static_cast<std::ptrdiff_t>(way / 2u % ref_->tracks.size());
      const reference::Track& t = *std::next(ref_->tracks.begin(), position);
      reference::Box box = t.box;
      if (t.filter && way % 2 == 1) {
        const std::vector<float>& x = t.filter->state_post;
        box = {2 * x[0] - x[2], 2 * x[1] - x[3], 2 * x[4] - x[6], 2 * x[5] - x[7]};
      }
      const float cx = box.cx + quarters(), cy = box.cy + quarters();
      return harness::centred(static_cast<float>(t.label), cx, cy, box.w, box.h, way);
    }
    const float cx = quarters(), cy = quarters();
    const std::uint8_t size = input_.byte();
    return harness::centred(way < 16 ? label() : 1.0f, cx, cy, 1.0f + size % 16, 1.0f + size / 16, input_.byte());
  }

  std::vector<Record> records(std::size_t count) {
    std::vector<Record> list;
    for (std::size_t i = 0; i < count; ++i) list.push_back(record());
    return list;
  }

  // The list lies at the end of its memory and so do the results, if they are not to be written over it.
  void process(std::vector<Record> list, bool failing) {
    ++frame_;
    const auto capacity = static_cast<std::size_t>(std::max(params_.count, 0));
    // A full list has no end mark. One that is not read may be too long.
    const bool full = list.size() == capacity && capacity > 0;
    const std::uint8_t way = list.empty() ? std::uint8_t{0} : input_.byte();
    const bool shared = way % 4 == 1, none = way % 4 == 2;
    std::size_t floats = list.size() * kBoxFloats + (full ? 0 : 1);
    const std::size_t room = std::max<std::size_t>(shared ? capacity * kResultFloats : 0, floats);
    auto* const boxes = reinterpret_cast<float*>(boxes_.begin() + Guarded::kBytes) - room;
    float* at = boxes;
    for (const Record& r : list) {
      std::memcpy(at, &r, sizeof r);
      at += kBoxFloats;
    }
    if (!full) *at = way % 8 < 4 ? 0.0f : -0.0f;
    boxes_.twin_follows(boxes, room * sizeof(float));
    auto* const apart = reinterpret_cast<float*>(results_.begin() + Guarded::kBytes) - capacity * kResultFloats;
    float* const results = shared ? boxes : none ? nullptr : apart;
    auto* const ref_boxes = reinterpret_cast<float*>(boxes_.twin(boxes));
    auto* const ref_results = shared ? ref_boxes : none ? nullptr : reinterpret_cast<float*>(results_.twin(results));

    std::vector<ox_track_t*> old_matches(tracker_->det_match, tracker_->det_match + capacity);
    const long nth = failing ? input_.between(1, 4) : 0, how_many = failing ? input_.between(1, 5) : 0;
    const long blocks_before = blocks();
    boxes_.poison();
    results_.poison();
    ASAN_UNPOISON_MEMORY_REGION(boxes, room * sizeof(float));
    if (results != nullptr) ASAN_UNPOISON_MEMORY_REGION(results, capacity * kResultFloats * sizeof(float));
    alloc_hook::reset();
    if (failing) alloc_hook::fail_from(nth, how_many);
    ox_tracker_process(tracker_.get(), boxes, results);
    const long live = alloc_hook::live();
    alloc_hook::reset();
    boxes_.unpoison();
    results_.unpoison();

    if (failing) ref_->fail_from(nth, how_many);
    ref_->process(ref_boxes, ref_results);
    ref_->fail_from(0, 0);

    check("frame");
    if (live != blocks() - blocks_before) fail("number of blocks allocated");
    for (auto i = static_cast<std::size_t>(ref_->det_count); i < capacity; ++i)
      if (tracker_->det_match[i] != old_matches[i]) fail("det_match behind the detections");
    if (results != nullptr) accept_nans(results, ref_results, capacity);
    if (!boxes_.same()) fail(shared ? "results over boxes" : "boxes");
    if (!results_.same()) fail("results");
  }

  // Corners are the outcome of arithmetic: in them all NaNs are one value.
  static void accept_nans(const float* got, float* want, std::size_t records) {
    for (std::size_t i = 0; i < records * kResultFloats; ++i) {
      const bool corner = i % kResultFloats >= 2 && i % kResultFloats <= 5;
      if (corner && got[i] != got[i] && want[i] != want[i]) std::memcpy(want + i, got + i, sizeof(float));
    }
  }

  long blocks() const {
    long count = 0;
    for (const reference::Track& t : ref_->tracks) count += t.filter ? 3 : 1;
    return count;
  }

  void check(const char* after) {
    const std::string found = harness::difference(*tracker_, *ref_);
    if (!found.empty()) fail(found + " after " + after);
  }

  [[noreturn]] void fail(const std::string& what) { fuzz::fail(what + ", frame " + std::to_string(frame_)); }

  Input& input_;
  Guarded& boxes_;
  Guarded& results_;
  Params params_;
  harness::TrackerPtr tracker_;
  std::unique_ptr<reference::Tracker> ref_;
  int frame_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Guarded boxes, results;
  static fuzz::SameWorkArea work_area;
  Input input(data, size);
  fuzz::choose_width(input.byte());
  work_area.begin_input();
  work_area.prepare(5);
  std::memset(boxes.begin(), 0, Guarded::kBytes);
  std::memset(results.begin(), 0, Guarded::kBytes);
  boxes.twin_follows();
  results.twin_follows();
  Session(input, boxes, results).run();
  return 0;
}
