// SPDX-License-Identifier: MIT
// Library and reference are led through the same random frames; after each of them the whole state is compared
// byte for byte, all NaNs of arithmetic being one value. Counters of the reference prove that every branch was
// taken.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "alloc_hook.h"
#include "ox.h"
#include "support.h"
#include "tracker_harness.h"

namespace {

using harness::float_of;
using harness::kInfinity;
using harness::kInt32Max;
using harness::kInt32Min;
using harness::kNaN;
using harness::Params;
using harness::Record;
using harness::TrackerPtr;
using support::Random;

constexpr std::uint32_t kCanary = 0xC0FFEE11u;

// What a run of frames is made of; a rate of n means one in n, 0 never.
struct Style {
  std::int32_t objects_most = 8;
  bool whole_coordinates = false;  // then distances tie, and meet the gate and near_dist2 exactly
  std::int32_t aimed_rate = 3;     // detections laid beside a track of the moment
  std::int32_t hostile_rate = 0;
  std::int32_t strange_label_rate = 0;
  std::int32_t set_params_rate = 0;
  std::int32_t failure_rate = 0;
  std::int32_t poke_rate = 0;
  std::int32_t capacity_least = 1;
  std::int32_t capacity_most = 24;
};

template <class T, std::size_t n>
T pick(Random& random, const T (&choices)[n]) {
  return choices[random.bits() % n];
}

std::size_t index_below(Random& random, std::size_t end) { return static_cast<std::size_t>(random.bits() % end); }

float unit(Random& random) { return static_cast<float>(random.between(0, 1 << 20)) / 1048576.0f; }
float in_range(Random& random, float low, float high) { return low + (high - low) * unit(random); }
bool happens(Random& random, std::int32_t rate) { return rate > 0 && random.one_in(rate); }

struct Object {
  float label;
  float cx, cy, w, h;
  float vx, vy;
};

class Session {
 public:
  Session(Random& random, const Style& style) : random_(random), style_(style), params_(creation_params()) {
    tracker_ = harness::make_tracker(params_);
    ref_ = std::make_unique<reference::Tracker>(params_.count, params_.confirm_hits, params_.max_misses,
                                                params_.any_label, params_.near_dist2, params_.iou_threshold);
    spread_ = pick(random_, {15.0f, 40.0f, 200.0f});
    const std::int32_t count = random_.between(1, style_.objects_most);
    for (std::int32_t i = 0; i < count; ++i) objects_.push_back(new_object());
    if (random_.one_in(8)) {
      // The last identities, so that the first ones come round again.
      ref_->next_id = random_.between(1048570, 1048574);
      tracker_->next_id = ref_->next_id;
    }
  }

  bool made() const { return tracker_ != nullptr; }
  const reference::TrackerEvents& events() const { return ref_->events; }

  // What differs after one more frame, or nothing.
  std::string run_frame() {
    if (happens(random_, style_.set_params_rate)) change_params();
    if (happens(random_, style_.poke_rate)) poke();

    std::vector<float> boxes = next_list();
    const std::int32_t capacity = std::max(params_.count, 0);
    const std::size_t result_floats = 8 * static_cast<std::size_t>(capacity);
    std::vector<float> results;
    std::vector<float> ref_boxes = boxes;
    std::vector<float> ref_results;
    const std::int32_t way = random_.between(0, 5);
    const bool shared = way == 1;
    const bool none = way == 0;
    if (shared) {
      boxes.resize(std::max(boxes.size(), result_floats) + 1, float_of(kCanary));
      ref_boxes = boxes;
    } else if (!none) {
      results.assign(result_floats + 1, float_of(kCanary));
      ref_results = results;
    }
    float* const out = shared ? boxes.data() : none ? nullptr : results.data();
    float* const ref_out = shared ? ref_boxes.data() : none ? nullptr : ref_results.data();

    std::vector<ox_track_t*> old_matches;
    if (capacity > 0) old_matches.assign(tracker_->det_match, tracker_->det_match + capacity);

    const bool failing = happens(random_, style_.failure_rate);
    const long nth = random_.between(1, 4);
    const long how_many = random_.between(1, 5);
    alloc_hook::reset();
    if (failing) alloc_hook::fail_from(nth, how_many);
    ox_tracker_process(tracker_.get(), boxes.data(), out);
    const long live = alloc_hook::live();
    alloc_hook::reset();

    if (failing) ref_->fail_from(nth, how_many);
    const long blocks_before = ref_->blocks();
    ref_->process(ref_boxes.data(), ref_out);
    ref_->fail_from(0, 0);

    std::string found = harness::difference(*tracker_, *ref_);
    if (!found.empty()) return found;
    if (live != ref_->blocks() - blocks_before) return "number of blocks allocated";
    for (auto i = static_cast<std::size_t>(ref_->det_count); i < old_matches.size(); ++i) {
      if (tracker_->det_match[i] != old_matches[i]) return "det_match behind the detections";
    }
    if (!shared && std::memcmp(boxes.data(), ref_boxes.data(), boxes.size() * sizeof(float)) != 0)
      return "boxes were written";
    return harness::result_difference(shared ? boxes : results, shared ? ref_boxes : ref_results);
  }

 private:
  Params creation_params() {
    Params p;
    p.count = random_.between(style_.capacity_least, style_.capacity_most);
    p.confirm_hits = random_.one_in(10) ? random_.between(-2, 0) : random_.between(1, 5);
    p.max_misses = random_.one_in(10) ? random_.between(-2, 0) : random_.between(1, 12);
    p.any_label = random_.one_in(3) ? pick(random_, {1u, 2u, 0x80000000u}) : 0u;
    p.near_dist2 = pick(random_, {0.0f, 0.25f, 1.0f, 1.0f, 1.0f, 5.0f, -1.0f, kNaN});
    p.iou_threshold = pick(random_, {0.0f, 0.1f, 0.2f, 0.3f, 0.3f, 0.3f, 0.5f, 0.9f, 1.0f, 1.5f, -0.5f, kNaN});
    return p;
  }

  void change_params() {
    const std::int32_t confirm_hits =
        pick(random_, {kInt32Min, -5, 0, 1, 1, 2, 2, 3, 3, 4, 6, 9, 30, kInt32Max});
    const std::int32_t max_misses = pick(random_, {kInt32Min, -1, 0, 1, 2, 3, 5, 7, 10, 20, kInt32Max});
    const std::uint32_t any_label = pick(random_, {0u, 0u, 1u, 0xFFFFFFFFu});
    const float near_dist2 =
        pick(random_, {1.0f, 1.0f, 0.0f, 0.25f, 25.0f, 99.0f, 100.0f, 1e9f, -1.0f, -0.0f, kInfinity, -kInfinity, kNaN});
    const float iou_threshold =
        pick(random_, {0.3f, 0.3f, 0.1f, 0.0f, -0.0f, 0.5f, 1.0f, 1.5f, -0.5f, kInfinity, -kInfinity, kNaN});
    ox_tracker_set_params(tracker_.get(), confirm_hits, max_misses, any_label, near_dist2, iou_threshold);
    ref_->set_params(confirm_hits, max_misses, any_label, near_dist2, iou_threshold);
  }

  // Fields that a caller may write: counters near their end, the next identity, the current box of a track.
  void poke() {
    const std::vector<ox_track_t*> tracks = harness::tracks_of(tracker_.get());
    if (tracks.empty() || random_.one_in(4)) {
      ref_->next_id = random_.between(1048572, 1048576);
      tracker_->next_id = ref_->next_id;
      return;
    }
    const std::size_t position = index_below(random_, tracks.size());
    ox_track_t& t = *tracks[position];
    reference::Track& expected = *std::next(ref_->tracks.begin(), static_cast<std::ptrdiff_t>(position));
    if (random_.one_in(3)) {
      t.hits = expected.hits = kInt32Max - random_.between(0, 1);
    } else if (random_.one_in(2)) {
      t.misses = expected.misses = kInt32Max - random_.between(0, 1);
    } else {
      t.w = expected.box.w = pick(random_, {kNaN, kInfinity, -3.0f, 0.0f});
      t.cy = expected.box.cy = expected.box.cy + 1.0f;
    }
  }

  float place() {
    const float value = in_range(random_, 0.0f, spread_);
    return style_.whole_coordinates ? static_cast<float>(static_cast<std::int32_t>(value)) : value;
  }

  float label() {
    if (happens(random_, style_.strange_label_rate)) {
      return pick(random_, {-1.0f, -7.5f, 0.3f, -0.9f, 1.5f, 1e9f, 2147483648.0f, -2147483648.0f, -3e9f, 3e38f, kNaN,
                            -kNaN, kInfinity, -kInfinity, 1e-45f, 16777217.0f});
    }
    return static_cast<float>(random_.between(1, 2));
  }

  Object new_object() {
    Object o{};
    o.label = label();
    o.cx = place();
    o.cy = place();
    o.w = 4.0f + 2.0f * static_cast<float>(random_.between(0, 10));
    o.h = 4.0f + 2.0f * static_cast<float>(random_.between(0, 10));
    o.vx = static_cast<float>(random_.between(-4, 4));
    o.vy = static_cast<float>(random_.between(-4, 4));
    if (!style_.whole_coordinates) {
      o.w += unit(random_);
      o.h += unit(random_);
      o.vx *= unit(random_);
      o.vy *= unit(random_);
    }
    return o;
  }

  float jitter() {
    return style_.whole_coordinates ? static_cast<float>(random_.between(-2, 2)) : in_range(random_, -1.5f, 1.5f);
  }

  // Beside the current box of a track: at rest, where it will be expected, at the near distance, at the gate.
  Record aimed() {
    const auto position = static_cast<std::ptrdiff_t>(index_below(random_, ref_->tracks.size()));
    const reference::Track& t = *std::next(ref_->tracks.begin(), position);
    struct Offset {
      float dx, dy;
    };
    const Offset offset = pick(random_, {Offset{0, 0}, Offset{0, 0}, Offset{1, 0}, Offset{0, -1}, Offset{0.5f, 0},
                                         Offset{3, 4}, Offset{-5, 0}, Offset{-4, 3}, Offset{6, 8}, Offset{-10, 0},
                                         Offset{0, 9}, Offset{2, 0}, Offset{-2, 0}});
    reference::Box box = t.box;
    if (t.id >= 0 && random_.one_in(2)) {
      const std::vector<float>& x = t.filter->state_post;
      box = reference::Box{2 * x[0] - x[2], 2 * x[1] - x[3], 2 * x[4] - x[6], 2 * x[5] - x[7]};
    }
    const float given = random_.one_in(8) ? label() : static_cast<float>(t.label);
    return harness::centred(given, box.cx + offset.dx, box.cy + offset.dy, box.w, box.h, score());
  }

  std::uint32_t score() {
    return random_.one_in(4) ? pick(random_, {0x7F812345u, 0xFFC00001u, 0x80000000u, 0x7F800000u, 0xFFFFFFFFu})
                             : static_cast<std::uint32_t>(random_.bits());
  }

  float hostile_number() {
    return pick(random_, {kNaN, kInfinity, -kInfinity, 3e38f, -3e38f, 3.4028235e38f, 1e19f, -1e19f, 1e-45f, -0.0f, 0.0f,
                          1.1754944e-38f, 16777217.0f, 1.0f});
  }

  void disturb(Record& r) {
    switch (random_.between(0, 5)) {
      case 0:
        *pick(random_, {&r.x1, &r.y1, &r.x2, &r.y2}) = hostile_number();
        break;
      case 1:
        std::swap(r.x1, r.x2);
        break;
      case 2:
        std::swap(r.y1, r.y2);
        break;
      case 3:
        r.x2 = r.x1;
        break;
      case 4:
        r.x1 = r.x2 = (r.x1 + r.x2) * 0.5f;
        r.y1 = r.y2 = (r.y1 + r.y2) * 0.5f;
        break;
      default:
        r.x1 = hostile_number();
        r.y1 = hostile_number();
        r.x2 = hostile_number();
        r.y2 = hostile_number();
        break;
    }
  }

  std::vector<float> next_list() {
    std::vector<Record> records;
    const bool blackout = random_.one_in(30);
    if (blackout) blackout_left_ = random_.between(1, 8);
    if (blackout_left_ > 0) {
      --blackout_left_;
      return {random_.one_in(2) ? 0.0f : -0.0f};
    }
    for (Object& o : objects_) {
      o.cx += o.vx;
      o.cy += o.vy;
      if (random_.one_in(40)) o = new_object();
      if (random_.one_in(25)) o.label = label();
      if (random_.one_in(5)) continue;
      // Now and then one object is seen twice or three times.
      const std::int32_t times = random_.one_in(5) ? random_.between(2, 3) : 1;
      for (std::int32_t i = 0; i < times; ++i) {
        // One draw a statement: the order of arguments is the compiler's, the frames must not be.
        const float cx = o.cx + jitter();
        const float cy = o.cy + jitter();
        Record r = harness::centred(o.label, cx, cy, o.w, o.h, score());
        if (happens(random_, style_.hostile_rate)) disturb(r);
        records.push_back(r);
        if (random_.one_in(20)) records.push_back(r);
      }
      if (o.cx < -spread_ || o.cx > 2 * spread_ || o.cy < -spread_ || o.cy > 2 * spread_) o = new_object();
    }
    if (!ref_->tracks.empty()) {
      const std::size_t tracks = ref_->tracks.size();
      for (std::size_t i = 0; i < tracks && happens(random_, style_.aimed_rate); ++i) {
        Record r = aimed();
        if (happens(random_, 2 * style_.hostile_rate)) disturb(r);
        records.push_back(r);
      }
    }
    for (std::size_t i = records.size(); i > 1; --i) {
      if (random_.one_in(2)) std::swap(records[i - 1], records[index_below(random_, i)]);
    }

    // A full list ends with its last record: one float more would be seen by the address sanitizer.
    const auto capacity = static_cast<std::size_t>(std::max(params_.count, 0));
    const bool cut = records.size() >= capacity && capacity > 0 && random_.one_in(2);
    if (cut) records.resize(capacity);
    std::vector<float> list;
    list.reserve(records.size() * 6 + 1);
    for (const Record& r : records) harness::append(list, r);
    if (!cut) list.push_back(random_.one_in(2) ? 0.0f : -0.0f);
    list.shrink_to_fit();
    return list;
  }

  Random& random_;
  Style style_;
  Params params_;
  TrackerPtr tracker_;
  std::unique_ptr<reference::Tracker> ref_;
  std::vector<Object> objects_;
  float spread_ = 40.0f;
  std::int32_t blackout_left_ = 0;
};

// The members of TrackerEvents, all of one type, summed over sessions.
reference::TrackerEvents sum(const reference::TrackerEvents& a, const reference::TrackerEvents& b) {
  constexpr std::size_t kCount = sizeof(reference::TrackerEvents) / sizeof(long);
  long left[kCount];
  long right[kCount];
  std::memcpy(left, &a, sizeof a);
  std::memcpy(right, &b, sizeof b);
  for (std::size_t i = 0; i < kCount; ++i) left[i] += right[i];
  reference::TrackerEvents total;
  std::memcpy(&total, left, sizeof total);
  return total;
}

// A quarter for emulators; with fewer the rare branches would be missed.
constexpr int sessions(int number) { return support::kLight ? number / 4 : number; }

void run_sessions(std::uint64_t seed, const Style& style, int count, int frames, reference::TrackerEvents& total) {
  Random random(seed);
  for (int s = 0; s < count; ++s) {
    Session session(random, style);
    ASSERT_TRUE(session.made());
    for (int f = 0; f < frames; ++f) {
      const std::string found = session.run_frame();
      ASSERT_EQ(found, "") << random << "session " << s << ", frame " << f;
    }
    total = sum(total, session.events());
  }
}

TEST(TrackerRandom, CrowdedScenesMatchTheReferenceAfterEveryFrame) {
  Style style;
  reference::TrackerEvents e;
  run_sessions(0x5EED0101u, style, sessions(160), 150, e);
  EXPECT_GT(e.terminators, 0);
  EXPECT_GT(e.full_lists, 0);
  EXPECT_GT(e.near_pairs, 0);
  EXPECT_GT(e.overlaps_above, 0);
  EXPECT_GT(e.overlaps_refused, 0);
  EXPECT_GT(e.takeovers, 0);
  EXPECT_GT(e.conflicts_lost, 0);
  EXPECT_GT(e.births, 0);
  EXPECT_GT(e.births_over_capacity, 0);
  EXPECT_GT(e.confirmations, 0);
  EXPECT_GT(e.corrections, 0);
  EXPECT_GT(e.hits_reset, 0);
  EXPECT_GT(e.deaths_tentative, 0);
  EXPECT_GT(e.deaths_tentative_old, 0);
  EXPECT_GT(e.deaths_confirmed, 0);
  EXPECT_GT(e.label_changes, 0);
  EXPECT_GT(e.records, 0);
  EXPECT_GT(e.unreported, 0);
  EXPECT_GT(e.end_marks, 0);
  EXPECT_GT(e.full_results, 0);
}

TEST(TrackerRandom, TiesAndExactDistancesMatchTheReference) {
  Style style;
  style.whole_coordinates = true;
  style.objects_most = 6;
  style.aimed_rate = 2;
  reference::TrackerEvents e;
  run_sessions(0x5EED0102u, style, sessions(128), 150, e);
  EXPECT_GT(e.distance_ties, 0);
  EXPECT_GT(e.conflict_ties, 0);
  EXPECT_GT(e.takeovers, 0);
  EXPECT_GT(e.corrections, 0);
  EXPECT_GT(e.no_candidate, 0);
}

TEST(TrackerRandom, HostileBoxesAndLabelsMatchTheReference) {
  Style style;
  style.hostile_rate = 4;
  style.strange_label_rate = 3;
  style.capacity_most = 40;
  reference::TrackerEvents e;
  run_sessions(0x5EED0103u, style, sessions(128), 150, e);
  EXPECT_GT(e.overlaps_nan, 0);
  EXPECT_GT(e.confirmations, 0);
  EXPECT_GT(e.corrections, 0);
  EXPECT_GT(e.label_changes, 0);
}

TEST(TrackerRandom, ParametersChangedInMidStreamMatchTheReference) {
  Style style;
  style.set_params_rate = 12;
  style.hostile_rate = 30;
  reference::TrackerEvents e;
  run_sessions(0x5EED0104u, style, sessions(128), 200, e);
  EXPECT_GT(e.late_confirmations, 0);
  EXPECT_GT(e.raw_updates_confirmed, 0);
  EXPECT_GT(e.corrections, 0);
  EXPECT_GT(e.deaths_confirmed, 0);
}

TEST(TrackerRandom, FailingAllocationsMatchTheReference) {
  Style style;
  style.failure_rate = 3;
  style.aimed_rate = 2;
  reference::TrackerEvents e;
  run_sessions(0x5EED0105u, style, sessions(128), 150, e);
  EXPECT_GT(e.births_failed, 0);
  EXPECT_GT(e.confirmations_failed, 0);
  EXPECT_GT(e.late_confirmations, 0);
  EXPECT_GT(e.corrections, 0);
}

TEST(TrackerRandom, CountersAtTheirEndsMatchTheReference) {
  Style style;
  style.poke_rate = 6;
  style.set_params_rate = 20;
  reference::TrackerEvents e;
  run_sessions(0x5EED0106u, style, sessions(96), 150, e);
  EXPECT_GT(e.identity_wraps, 0);
  EXPECT_GT(e.confirmations, 0);
  EXPECT_GT(e.corrections, 0);
}

TEST(TrackerRandom, SmallestAndMissingCapacitiesMatchTheReference) {
  reference::TrackerEvents none;
  reference::TrackerEvents few;
  Style style;
  style.capacity_least = -3;
  style.capacity_most = 0;
  run_sessions(0x5EED0107u, style, sessions(32), 20, none);
  EXPECT_EQ(none.births, 0);
  EXPECT_EQ(none.end_marks, 0);
  style.capacity_least = 1;
  style.capacity_most = 2;
  style.failure_rate = 10;
  run_sessions(0x5EED0108u, style, sessions(96), 100, few);
  EXPECT_GT(few.births_over_capacity, 0);
  EXPECT_GT(few.full_results, 0);
  EXPECT_GT(few.corrections, 0);
}

TEST(TrackerRandom, LargeCapacitiesMatchTheReference) {
  Style style;
  style.capacity_least = 100;
  style.capacity_most = 300;
  style.objects_most = 60;
  style.set_params_rate = 40;
  style.hostile_rate = 50;
  reference::TrackerEvents e;
  run_sessions(0x5EED0109u, style, sessions(32), 100, e);
  EXPECT_GT(e.corrections, 0);
  EXPECT_GT(e.takeovers, 0);
  EXPECT_GT(e.deaths_confirmed, 0);
}

TEST(TrackerRandom, EverythingAtOnceMatchesTheReference) {
  Style style;
  style.hostile_rate = 12;
  style.strange_label_rate = 10;
  style.set_params_rate = 25;
  style.failure_rate = 12;
  style.poke_rate = 30;
  style.capacity_least = 0;
  style.capacity_most = 30;
  reference::TrackerEvents e;
  run_sessions(0x5EED010Au, style, sessions(128), 200, e);
  EXPECT_GT(e.confirmations_failed, 0);
  EXPECT_GT(e.corrections, 0);
  EXPECT_GT(e.takeovers, 0);
}

}  // namespace
