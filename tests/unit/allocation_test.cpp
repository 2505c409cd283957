// SPDX-License-Identifier: MIT
// Every allocation of a sequence of calls is made to fail in turn: alone, and with all that follow it. The reference is
// told of the same failures. After every call library and reference must agree, and at the end nothing be left.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "alloc_hook.h"
#include "ox.h"
#include "reference/kalman.h"
#include "support.h"
#include "tracker_harness.h"

namespace {

using harness::centred;
using harness::Params;
using harness::Record;

constexpr long kAllLater = 1000000;

// The allocations that a sequence is expected to ask for, in order, and which of them fail.
class Ledger {
 public:
  Ledger(long nth, long how_many) : nth_(nth), how_many_(how_many) {}

  // Books the next allocation: whether it is had.
  bool grant() {
    ++asked_;
    return asked_ < nth_ || asked_ >= nth_ + how_many_;
  }

  // Books those of a frame of the reference.
  void process(reference::Tracker& ref, const float* boxes, float* results) {
    const long before = ref.allocations();
    ref.fail_from(nth_ - asked_, how_many_);
    ref.process(boxes, results);
    asked_ += ref.allocations() - before;
  }

  long asked() const { return asked_; }
  long refused() const { return std::max(0L, std::min(asked_, nth_ + how_many_ - 1) - nth_ + 1); }

 private:
  long nth_;
  long how_many_;
  long asked_ = 0;
};

using Sequence = std::function<void(Ledger&)>;

// The sequence frees all that it was given, failures or not.
void run(const Sequence& sequence, Ledger& ledger, long nth, long how_many) {
  alloc_hook::reset();
  alloc_hook::fail_from(nth, how_many);
  sequence(ledger);
  const long live = alloc_hook::live();
  const long calls = alloc_hook::calls();
  const long refused = alloc_hook::refused();
  alloc_hook::reset();
  if (testing::Test::HasFailure()) return;
  ASSERT_EQ(live, 0) << "blocks are left";
  ASSERT_EQ(calls, ledger.asked());
  ASSERT_EQ(refused, ledger.refused());
}

void sweep(long allocations, const Sequence& sequence) {
  Ledger clean(0, 0);
  run(sequence, clean, 0, 0);
  ASSERT_GT(allocations, 0);
  ASSERT_EQ(clean.asked(), allocations) << "of a run without failures";
  ASSERT_EQ(clean.refused(), 0);
  for (const long how_many : {1L, kAllLater}) {
    long swept = 0;
    for (long nth = 1; nth <= allocations; ++nth) {
      SCOPED_TRACE("allocation " + std::to_string(nth) + (how_many == 1 ? " fails" : " and all later ones fail"));
      Ledger ledger(nth, how_many);
      run(sequence, ledger, nth, how_many);
      if (testing::Test::HasFailure()) return;
      if (how_many == 1) {
        ASSERT_EQ(ledger.refused(), 1);
      }
      if (ledger.refused() > 0) ++swept;
    }
    ASSERT_EQ(swept, allocations);
  }
}

// ------------------------------------------------------------------------------------------- matrices and filters

struct ReleaseMatrix {
  void operator()(ox_mat_t* m) const { ox_mat_release(m); }
};
using MatrixPtr = std::unique_ptr<ox_mat_t, ReleaseMatrix>;

MatrixPtr make_matrix(Ledger& ledger, std::int32_t rows, std::int32_t cols, std::uint32_t type) {
  const bool granted = ledger.grant();
  MatrixPtr m(ox_mat_create(rows, cols, type));
  EXPECT_EQ(m != nullptr, granted);
  return m;
}

// A filter of two states and one measurement, with its own model or a lent one, beside the reference.
class FilterTwins {
 public:
  FilterTwins(Ledger& ledger, ox_mat_t* const* lent) : ref_(2, 1, model()) {
    const bool granted = ledger.grant();
    kf_ = lent ? ox_kalman_create(2, 1, 1, lent[0], lent[1], lent[2], lent[3])
               : ox_kalman_create(2, 1, 0, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(kf_ != nullptr, granted);
    if (!kf_) return;
    if (!lent) {
      ox_mat_t* const own[4] = {kf_->transition_matrix, kf_->measurement_matrix, kf_->process_noise_cov,
                                kf_->measurement_noise_cov};
      fill_model(own);
    }
    ox_mat_setidentity(kf_->error_cov_post);
    ref_.error_cov_post = {1, 0, 0, 1};
  }
  ~FilterTwins() { ox_kalman_release(kf_); }
  FilterTwins(const FilterTwins&) = delete;
  FilterTwins& operator=(const FilterTwins&) = delete;

  static void fill_model(ox_mat_t* const* matrices) {
    const auto copy = [](const std::vector<float>& from, ox_mat_t* to) {
      std::copy(from.begin(), from.end(), harness::floats(to));
    };
    copy(model()->transition, matrices[0]);
    copy(model()->measurement, matrices[1]);
    copy(model()->process_noise, matrices[2]);
    copy(model()->measurement_noise, matrices[3]);
  }

  void step(float measured) {
    if (!kf_) return;
    ox_mat_t z = support::header(OX_F32, 1, 1, &measured);
    ox_kalman_predict(kf_);
    ox_kalman_correct(kf_, &z);
    ref_.predict();
    ref_.correct({measured});
    EXPECT_TRUE(harness::same_values(harness::floats(kf_->state_pre), ref_.state_pre));
    EXPECT_TRUE(harness::same_values(harness::floats(kf_->state_post), ref_.state_post));
    EXPECT_TRUE(harness::same_values(harness::floats(kf_->error_cov_pre), ref_.error_cov_pre));
    EXPECT_TRUE(harness::same_values(harness::floats(kf_->error_cov_post), ref_.error_cov_post));
    EXPECT_TRUE(harness::same_values(harness::floats(kf_->gain), ref_.gain));
  }

 private:
  static std::shared_ptr<const reference::KalmanModel> model() {
    static const auto shared = [] {
      auto made = std::make_shared<reference::KalmanModel>(2, 1);
      made->transition = {1, 1, 0, 1};
      made->measurement = {1, 0};
      made->process_noise = {0.25f, 0, 0, 0.5f};
      made->measurement_noise = {2};
      return made;
    }();
    return shared;
  }

  ox_kalman_t* kf_ = nullptr;
  reference::Kalman ref_;
};

TEST(Allocation, MatricesOfEveryDepthFailAlone) {
  sweep(8, [](Ledger& ledger) {
    std::vector<MatrixPtr> matrices;
    for (std::uint32_t depth = 0; depth < 8; ++depth) {
      matrices.push_back(make_matrix(ledger, 3, 5, OX_TYPE(depth, 2)));
      if (matrices.back()) ox_mat_setone(matrices.back().get());
    }
    for (std::uint32_t depth = 0; depth < 8; ++depth) {
      const ox_mat_t* const m = matrices[depth].get();
      if (!m) continue;
      EXPECT_EQ(m->type, OX_TYPE(depth, 2));
      EXPECT_EQ(m->rows, 3);
      EXPECT_EQ(m->cols, 5);
      std::vector<unsigned char> ones(30 * reference::scalar_size(depth));
      reference::Matrix plain = support::plain(*m, ones.data());
      reference::setone(plain);
      EXPECT_TRUE(support::same_bytes(m->data, ones.data(), ones.size())) << depth;
    }
  });
}

// Four matrices of a model, the filter that borrows them, one that has its own.
void two_filters(Ledger& ledger) {
  FilterTwins own(ledger, nullptr);
  own.step(1.5f);
  MatrixPtr model[4];
  model[0] = make_matrix(ledger, 2, 2, OX_F32);
  model[1] = make_matrix(ledger, 1, 2, OX_F32);
  model[2] = make_matrix(ledger, 2, 2, OX_F32);
  model[3] = make_matrix(ledger, 1, 1, OX_F32);
  own.step(3.5f);
  if (!model[0] || !model[1] || !model[2] || !model[3]) return;
  ox_mat_t* const lent[4] = {model[0].get(), model[1].get(), model[2].get(), model[3].get()};
  FilterTwins::fill_model(lent);
  FilterTwins borrower(ledger, lent);
  for (const float z : {-4.0f, 0.25f, 7.0f}) {
    own.step(z);
    borrower.step(-z);
  }
}

TEST(Allocation, FiltersWithOwnAndLentModels) { sweep(6, two_filters); }

// --------------------------------------------------------------------------------------------------- the tracker

constexpr long kTrackerBlocks = 8;  // the record, three arrays, four matrices of the model

class TrackerTwins {
 public:
  TrackerTwins(Ledger& ledger, const Params& p)
      : ledger_(ledger),
        ref_(p.count, p.confirm_hits, p.max_misses, p.any_label, p.near_dist2, p.iou_threshold) {
    bool granted = ledger.grant();
    if (granted) {  // without a record nothing else is asked for; behind it everything is, whatever fails
      for (long i = 1; i < kTrackerBlocks; ++i) granted = ledger.grant() && granted;
    }
    const long before = alloc_hook::live();
    tracker_ = harness::make_tracker(p);
    EXPECT_EQ(tracker_ != nullptr, granted);
    EXPECT_EQ(alloc_hook::live() - before, granted ? kTrackerBlocks : 0);
  }

  void set_params(const Params& p) {
    if (!tracker_) return;
    ox_tracker_set_params(tracker_.get(), p.confirm_hits, p.max_misses, p.any_label, p.near_dist2, p.iou_threshold);
    ref_.set_params(p.confirm_hits, p.max_misses, p.any_label, p.near_dist2, p.iou_threshold);
  }

  void frame(const std::vector<Record>& records) {
    if (!tracker_) return;
    const std::vector<float> boxes = harness::box_list(records);
    const std::size_t floats = 8 * static_cast<std::size_t>(tracker_->capacity) + 1;
    std::vector<float> results(floats, harness::float_of(harness::Results::kCanary));
    std::vector<float> expected = results;

    const long live_before = alloc_hook::live();
    const long calls_before = alloc_hook::calls();
    ox_tracker_process(tracker_.get(), boxes.data(), results.data());
    const long live = alloc_hook::live() - live_before;
    const long calls = alloc_hook::calls() - calls_before;

    const long blocks_before = ref_.blocks();
    const long asked_before = ledger_.asked();
    ledger_.process(ref_, boxes.data(), expected.data());
    EXPECT_EQ(harness::difference(*tracker_, ref_), "");
    EXPECT_EQ(harness::result_difference(results, expected), "");
    EXPECT_EQ(live, ref_.blocks() - blocks_before);
    EXPECT_EQ(calls, ledger_.asked() - asked_before);
  }

  const reference::TrackerEvents& events() const { return ref_.events; }

 private:
  Ledger& ledger_;
  reference::Tracker ref_;
  harness::TrackerPtr tracker_;
};

Params confirming_at(std::int32_t hits, std::int32_t capacity = 10) {
  Params p;
  p.count = capacity;
  p.confirm_hits = hits;
  p.max_misses = 2;
  return p;
}

TEST(Allocation, BirthsOfOneFrame) {
  sweep(kTrackerBlocks + 4, [](Ledger& ledger) {
    TrackerTwins twins(ledger, confirming_at(3));
    twins.frame({centred(1, 0, 0, 4, 4), centred(1, 50, 0, 4, 4), centred(2, 0, 0, 4, 4), centred(1, 0, 50, 6, 8)});
  });
}

TEST(Allocation, FailedBirthLeavesItsPlaceToAnotherDetection) {
  // Two of three find a place; when one of them fails, the third is asked for.
  sweep(kTrackerBlocks + 2, [](Ledger& ledger) {
    TrackerTwins twins(ledger, confirming_at(3, 2));
    for (float x : {0.0f, 1.0f})
      twins.frame({centred(1, x, 0, 4, 4), centred(1, x + 50, 0, 4, 4), centred(1, x, 50, 4, 4)});
  });
}

TEST(Allocation, ConfirmationsAtTheFirstHit) {
  sweep(kTrackerBlocks + 3 * 3, [](Ledger& ledger) {
    TrackerTwins twins(ledger, confirming_at(1));
    for (float x = 0; x < 4; ++x)
      twins.frame({centred(1, x, 0, 4, 4), centred(1, 50 - x, 0, 4, 4), centred(2, 2 * x, 50, 4, 4)});
  });
}

TEST(Allocation, ConfirmationsAtTheThirdHitAmongBirths) {
  sweep(kTrackerBlocks + 4 * 3, [](Ledger& ledger) {
    TrackerTwins twins(ledger, confirming_at(3));
    for (float x = 0; x < 8; ++x) {
      std::vector<Record> records = {centred(1, x, 0, 4, 4), centred(1, 50 - x, 0, 4, 4)};
      if (x >= 2) records.push_back(centred(2, 2 * x, 50, 4, 4));
      if (x >= 3) records.push_back(centred(1, 100, x, 8, 4));
      twins.frame(records);
    }
  });
}

TEST(Allocation, DeathsBeforeAndBehindAFailure) {
  // Two tracks die, one tentative, one confirmed; the third lives; two more come in their place.
  sweep(kTrackerBlocks + 3 + 3 + 1 + 2 * 3, [](Ledger& ledger) {
    TrackerTwins twins(ledger, confirming_at(2, 3));
    for (float x = 0; x < 12; ++x) {
      std::vector<Record> records = {centred(1, x, 0, 4, 4)};
      if (x < 4) records.push_back(centred(1, 50, x, 4, 4));
      if (x == 1) records.push_back(centred(1, 0, 50, 4, 4));
      if (x >= 8) records.push_back(centred(2, 60, x, 4, 4));
      if (x >= 8) records.push_back(centred(2, 70 + x, 40, 4, 4));
      twins.frame(records);
    }
  });
}

TEST(Allocation, ConfirmationsThatChangedParametersBring) {
  sweep(kTrackerBlocks + 2 * 3, [](Ledger& ledger) {
    TrackerTwins twins(ledger, confirming_at(30));
    for (float x = 0; x < 9; ++x) {
      if (x == 3) twins.set_params(confirming_at(2));
      if (x == 6) twins.set_params(confirming_at(40));  // a track that failed until now stays tentative
      twins.frame({centred(1, x, 0, 4, 4), centred(1, 50 - x, 0, 4, 4)});
    }
  });
}

// Six objects on paths that cross. Each is seen for a while, missed once, seen twice once, and then gone for longer
// than a track lives.
std::vector<Record> busy_frame(int f) {
  std::vector<Record> records;
  for (int i = 0; i < 6; ++i) {
    const int phase = (f + 5 * i) % 26;
    if (phase >= 14 || phase == 7) continue;
    const auto along = static_cast<float>(3 * phase);
    const auto lane = static_cast<float>(9 * i);
    const Record seen =
        i % 2 == 0 ? centred(1, along, lane, 10, 8 + 0.5f * lane) : centred(1, lane, 40 - along, 12, 10);
    records.push_back(seen);
    if (phase == 5) records.push_back(centred(1, seen.x1, seen.y1, 6, 6));
  }
  return records;
}

// Everything that allocates, mixed: two trackers of which one ends early, filters and matrices between the frames.
void long_sequence(Ledger& ledger, int frames, reference::TrackerEvents& events) {
  TrackerTwins first(ledger, confirming_at(2));
  auto second = std::make_unique<TrackerTwins>(ledger, confirming_at(3, 4));
  FilterTwins filter(ledger, nullptr);
  for (int f = 0; f < frames && !testing::Test::HasFailure(); ++f) {
    SCOPED_TRACE("frame " + std::to_string(f));
    first.frame(busy_frame(f));
    filter.step(static_cast<float>(f % 7));
    if (second) second->frame(busy_frame(2 * f));
    if (f % 16 == 3) two_filters(ledger);
    if (f == frames / 2) second.reset();
  }
  events = first.events();
}

TEST(Allocation, LongSequenceOfEverythingMixed) {
  constexpr int kFrames = support::kLight ? 40 : 60;
  reference::TrackerEvents events;
  Ledger clean(0, 0);
  run([&](Ledger& ledger) { long_sequence(ledger, kFrames, events); }, clean, 0, 0);
  EXPECT_GT(clean.asked(), support::kLight ? 70 : 120);
  EXPECT_GT(events.births, 10);
  EXPECT_GT(events.confirmations, 5);
  EXPECT_GT(events.corrections, 40);
  EXPECT_GT(events.deaths_confirmed, 0);
  EXPECT_GT(events.deaths_tentative, 0);
  RecordProperty("allocations", static_cast<int>(clean.asked()));
  sweep(clean.asked(), [&](Ledger& ledger) { long_sequence(ledger, kFrames, events); });
}

}  // namespace
