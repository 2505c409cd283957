// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "alloc_hook.h"
#include "ox.h"
#include "tracker_harness.h"

namespace {

using harness::floats;
using harness::kInfinity;
using harness::kNaN;
using harness::make_tracker;
using harness::Params;
using harness::TrackerPtr;

std::vector<float> contents(const ox_mat_t* m) {
  const float* const first = floats(m);
  return std::vector<float>(first, first + m->rows * m->cols);
}

float stored_near_dist2(float given) {
  Params p;
  p.near_dist2 = given;
  return make_tracker(p)->near_dist2;
}

float stored_iou_threshold(float given) {
  Params p;
  p.iou_threshold = given;
  return make_tracker(p)->iou_threshold;
}

// -------------------------------------------------------------------------------------------------- create

TEST(TrackerCreate, KeepsTheArgumentsInTheRecord) {
  const TrackerPtr tracker(ox_tracker_create(0xDEADBEEFu, 0x80000001u, 7, 4, 9, 0x80000000u, 0.5f, 0.3f));
  ASSERT_NE(tracker, nullptr);
  EXPECT_EQ(tracker->aux0, 0xDEADBEEFu);
  EXPECT_EQ(tracker->aux1, 0x80000001u);
  EXPECT_EQ(tracker->capacity, 7);
  EXPECT_EQ(tracker->confirm_hits, 4);
  EXPECT_EQ(tracker->max_misses, 9);
  EXPECT_EQ(tracker->any_label, 0x80000000u);
  EXPECT_EQ(tracker->near_dist2, 0.5f);
  EXPECT_EQ(tracker->iou_threshold, 0.3f);
}

TEST(TrackerCreate, StartsWithAnEmptyRingAndIdentityOne) {
  const TrackerPtr tracker = make_tracker({});
  ASSERT_NE(tracker, nullptr);
  EXPECT_TRUE(harness::is_head(tracker.get(), tracker->next));
  EXPECT_TRUE(harness::is_head(tracker.get(), tracker->prev));
  EXPECT_EQ(tracker->track_count, 0);
  EXPECT_EQ(tracker->det_count, 0);
  EXPECT_EQ(tracker->next_id, 1);
}

TEST(TrackerCreate, ClampsCountsToOneAndThresholdsToTheUnitInterval) {
  const TrackerPtr tracker(ox_tracker_create(0, 0, 10, 0, -3, 0, 5.0f, -0.2f));
  ASSERT_NE(tracker, nullptr);
  EXPECT_EQ(tracker->confirm_hits, 1);
  EXPECT_EQ(tracker->max_misses, 1);
  EXPECT_EQ(tracker->near_dist2, 1.0f);
  EXPECT_EQ(tracker->iou_threshold, 0.0f);
  EXPECT_EQ(tracker->next_id, 1);
  EXPECT_TRUE(harness::is_head(tracker.get(), tracker->next));
}

TEST(TrackerCreate, ClampsEveryNearDistance) {
  EXPECT_EQ(stored_near_dist2(0.5f), 0.5f);
  EXPECT_EQ(stored_near_dist2(0.0f), 0.0f);
  EXPECT_EQ(stored_near_dist2(1.0f), 1.0f);
  EXPECT_EQ(stored_near_dist2(1.0000001f), 1.0f);
  EXPECT_EQ(stored_near_dist2(kInfinity), 1.0f);
  EXPECT_EQ(stored_near_dist2(kNaN), 1.0f);
  EXPECT_EQ(stored_near_dist2(-0.0001f), 0.0f);
  EXPECT_EQ(stored_near_dist2(-kInfinity), 0.0f);
  EXPECT_EQ(harness::bits_of(stored_near_dist2(-0.0f)), 0x80000000u);  // no less than zero: it stays
}

TEST(TrackerCreate, ClampsEveryThreshold) {
  EXPECT_EQ(stored_iou_threshold(0.3f), 0.3f);
  EXPECT_EQ(stored_iou_threshold(0.0f), 0.0f);
  EXPECT_EQ(stored_iou_threshold(1.0f), 1.0f);
  EXPECT_EQ(stored_iou_threshold(1.0000001f), 1.0f);
  EXPECT_EQ(stored_iou_threshold(kInfinity), 1.0f);
  EXPECT_EQ(stored_iou_threshold(kNaN), 1.0f);
  EXPECT_EQ(stored_iou_threshold(-0.0001f), 0.0f);
  EXPECT_EQ(stored_iou_threshold(-kInfinity), 0.0f);
  EXPECT_EQ(harness::bits_of(stored_iou_threshold(-0.0f)), 0x80000000u);
}

TEST(TrackerCreate, ClampsTheExtremesOfTheCounts) {
  const TrackerPtr low(ox_tracker_create(0, 0, 1, harness::kInt32Min, harness::kInt32Min, 0, 0.0f, 0.0f));
  EXPECT_EQ(low->confirm_hits, 1);
  EXPECT_EQ(low->max_misses, 1);
  const TrackerPtr high(ox_tracker_create(0, 0, 1, harness::kInt32Max, harness::kInt32Max, 0, 0.0f, 0.0f));
  EXPECT_EQ(high->confirm_hits, harness::kInt32Max);
  EXPECT_EQ(high->max_misses, harness::kInt32Max);
}

TEST(TrackerCreate, ArraysHoldZerosForEveryUnitOfCapacity) {
  // Soiled blocks of the sizes to come are given back first; fresh memory would be zero anyway.
  constexpr std::size_t kCount = 50;
  for (const std::size_t size :
       {sizeof(ox_tracker_detection_t) * kCount, sizeof(ox_track_t*) * kCount, sizeof(float) * kCount}) {
    auto* const soiled = static_cast<volatile unsigned char*>(std::malloc(size));
    ASSERT_NE(soiled, nullptr);
    for (std::size_t i = 0; i < size; ++i) soiled[i] = 0xA5;
    std::free(const_cast<unsigned char*>(soiled));
  }
  Params p;
  p.count = static_cast<std::int32_t>(kCount);
  const TrackerPtr tracker = make_tracker(p);
  ASSERT_NE(tracker, nullptr);
  for (std::size_t i = 0; i < kCount; ++i) {
    const ox_tracker_detection_t& det = tracker->detections[i];
    EXPECT_EQ(det.label, 0);
    EXPECT_EQ(harness::bits_of(det.cx) | harness::bits_of(det.cy) | harness::bits_of(det.w) | harness::bits_of(det.h) |
                  det.score,
              0u);
    EXPECT_EQ(tracker->det_match[i], nullptr);
    EXPECT_EQ(harness::bits_of(tracker->det_dist2[i]), 0u);
  }
}

TEST(TrackerCreate, ModelIsTheTableElementForElement) {
  const TrackerPtr tracker = make_tracker({});
  ASSERT_NE(tracker, nullptr);
  EXPECT_EQ(contents(tracker->transition_matrix), (std::vector<float>{2, 0, -1, 0,  0, 0, 0,  0,   //
                                                                      0, 2, 0,  -1, 0, 0, 0,  0,   //
                                                                      1, 0, 0,  0,  0, 0, 0,  0,   //
                                                                      0, 1, 0,  0,  0, 0, 0,  0,   //
                                                                      0, 0, 0,  0,  2, 0, -1, 0,   //
                                                                      0, 0, 0,  0,  0, 2, 0,  -1,  //
                                                                      0, 0, 0,  0,  1, 0, 0,  0,   //
                                                                      0, 0, 0,  0,  0, 1, 0,  0}));
  EXPECT_EQ(contents(tracker->measurement_matrix), (std::vector<float>{1, 0, 0, 0, 0, 0, 0, 0,  //
                                                                       0, 1, 0, 0, 0, 0, 0, 0,  //
                                                                       0, 0, 0, 0, 1, 0, 0, 0,  //
                                                                       0, 0, 0, 0, 0, 1, 0, 0}));
  std::vector<float> process_noise(64, 0.0f);
  for (std::size_t i = 0; i < 8; ++i) process_noise[i * 9] = 0.1f;
  EXPECT_EQ(contents(tracker->process_noise_cov), process_noise);
  EXPECT_EQ(contents(tracker->measurement_noise_cov),
            (std::vector<float>{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}));
}

TEST(TrackerCreate, ModelHasPositiveZerosOnly) {
  const TrackerPtr tracker = make_tracker({});
  for (const ox_mat_t* matrix : {tracker->transition_matrix, tracker->measurement_matrix, tracker->process_noise_cov,
                                 tracker->measurement_noise_cov}) {
    for (const float value : contents(matrix)) EXPECT_NE(harness::bits_of(value), 0x80000000u);
  }
}

TEST(TrackerCreate, ModelMatricesAreBlocksThatReleaseTakes) {
  const TrackerPtr tracker = make_tracker({});
  struct Expected {
    const ox_mat_t* matrix;
    std::int32_t rows;
    std::int32_t cols;
  };
  for (const Expected& e : {Expected{tracker->transition_matrix, 8, 8}, Expected{tracker->measurement_matrix, 4, 8},
                            Expected{tracker->process_noise_cov, 8, 8},
                            Expected{tracker->measurement_noise_cov, 4, 4}}) {
    EXPECT_EQ(e.matrix->type, OX_F32);
    EXPECT_EQ(e.matrix->rows, e.rows);
    EXPECT_EQ(e.matrix->cols, e.cols);
    EXPECT_EQ(e.matrix->step, e.cols * 4);
    EXPECT_EQ(e.matrix->data, static_cast<const void*>(e.matrix + 1));
  }
}

TEST(TrackerCreate, NoCapacityGivesATrackerThatTracksNothing) {
  for (const std::int32_t count : {0, -1, -1000, harness::kInt32Min}) {
    Params p;
    p.count = count;
    p.confirm_hits = 1;
    const TrackerPtr tracker = make_tracker(p);
    ASSERT_NE(tracker, nullptr) << count;
    EXPECT_EQ(tracker->capacity, count);
    harness::Results results = harness::frame(tracker, {harness::centred(1, 0, 0, 4, 4)});
    EXPECT_EQ(tracker->det_count, 0) << count;
    EXPECT_EQ(tracker->track_count, 0) << count;
    EXPECT_TRUE(results.untouched(0)) << count;
  }
}

TEST(TrackerCreate, EveryFailedAllocationGivesNullAndKeepsNothing) {
  for (const std::int32_t count : {10, 1, 0, -5}) {
    long failing = 1;
    bool made = false;
    for (; !made && failing < 100; ++failing) {
      alloc_hook::reset();
      alloc_hook::fail_from(failing, 1);
      ox_tracker_t* const tracker = ox_tracker_create(0, 0, count, 3, 10, 0, 1.0f, 0.3f);
      const long live = alloc_hook::live();
      const long calls = alloc_hook::calls();
      alloc_hook::reset();
      made = tracker != nullptr;
      if (made) {
        EXPECT_LT(calls, failing) << "a failed allocation went unnoticed";
        const TrackerPtr owner(tracker);
        continue;
      }
      EXPECT_EQ(live, 0) << "allocation " << failing << " failed, count " << count;
    }
    EXPECT_TRUE(made);
    // The record and four model matrices at least; with a capacity also three arrays.
    EXPECT_GE(failing - 2, count > 0 ? 8 : 5) << count;
  }
}

TEST(TrackerCreate, SurvivesTheFailureOfEverythingBehindAnAllocation) {
  for (long failing = 1; failing <= 8; ++failing) {
    alloc_hook::reset();
    alloc_hook::fail_from(failing, 1000);
    ox_tracker_t* const tracker = ox_tracker_create(0, 0, 10, 3, 10, 0, 1.0f, 0.3f);
    const long live = alloc_hook::live();
    alloc_hook::reset();
    EXPECT_EQ(tracker, nullptr) << failing;
    EXPECT_EQ(live, 0) << failing;
  }
}

// ---------------------------------------------------------------------------------------------- set_params

TEST(TrackerSetParams, StoresTheFiveValuesWithoutClamping) {
  const TrackerPtr tracker = make_tracker({});
  ox_tracker_set_params(tracker.get(), 0, -7, 0xFFFFFFFFu, 5.0f, -0.2f);
  EXPECT_EQ(tracker->confirm_hits, 0);
  EXPECT_EQ(tracker->max_misses, -7);
  EXPECT_EQ(tracker->any_label, 0xFFFFFFFFu);
  EXPECT_EQ(tracker->near_dist2, 5.0f);
  EXPECT_EQ(tracker->iou_threshold, -0.2f);
  ox_tracker_set_params(tracker.get(), harness::kInt32Min, harness::kInt32Max, 0, -kInfinity, kInfinity);
  EXPECT_EQ(tracker->confirm_hits, harness::kInt32Min);
  EXPECT_EQ(tracker->max_misses, harness::kInt32Max);
  EXPECT_EQ(tracker->any_label, 0u);
  EXPECT_EQ(tracker->near_dist2, -kInfinity);
  EXPECT_EQ(tracker->iou_threshold, kInfinity);
  ox_tracker_set_params(tracker.get(), 1, 1, 0, kNaN, kNaN);
  EXPECT_NE(tracker->near_dist2, tracker->near_dist2);
  EXPECT_NE(tracker->iou_threshold, tracker->iou_threshold);
}

TEST(TrackerSetParams, LeavesEverythingElse) {
  const TrackerPtr tracker(ox_tracker_create(11, 22, 6, 2, 3, 0, 1.0f, 0.3f));
  harness::frame(tracker, {harness::centred(1, 0, 0, 4, 4)});
  harness::frame(tracker, {harness::centred(1, 0, 0, 4, 4), harness::centred(1, 50, 0, 4, 4)});
  ox_tracker_set_params(tracker.get(), 9, 9, 1, 0.0f, 0.0f);
  EXPECT_EQ(tracker->aux0, 11u);
  EXPECT_EQ(tracker->aux1, 22u);
  EXPECT_EQ(tracker->capacity, 6);
  EXPECT_EQ(tracker->next_id, 2);
  EXPECT_EQ(tracker->det_count, 2);
  const std::vector<ox_track_t*> tracks = harness::tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracks[0]->id, 1);
  EXPECT_EQ(tracks[0]->hits, 2);
  EXPECT_EQ(tracks[1]->id, -1);
  EXPECT_EQ(tracks[1]->hits, 1);
}

// ------------------------------------------------------------------------------------------------- release

TEST(TrackerRelease, NullDoesNothing) {
  alloc_hook::reset();
  ox_tracker_release(nullptr);
  EXPECT_EQ(alloc_hook::live(), 0);
}

TEST(TrackerRelease, FreesTheRecordAndTheThreeArraysOnly) {
  alloc_hook::reset();
  ox_tracker_t* const tracker = ox_tracker_create(0, 0, 10, 1, 10, 0, 1.0f, 0.3f);
  const long created = alloc_hook::live();
  ASSERT_NE(tracker, nullptr);
  ox_mat_t* const model[4] = {tracker->transition_matrix, tracker->measurement_matrix, tracker->process_noise_cov,
                              tracker->measurement_noise_cov};
  const float boxes[] = {1, 0, 0, 4, 4, 0, 0};
  ox_tracker_process(tracker, boxes, nullptr);
  ox_track_t* const track = tracker->next;
  const long with_track = alloc_hook::live();
  ox_tracker_release(tracker);
  const long left = alloc_hook::live();

  EXPECT_EQ(created, 8);
  EXPECT_EQ(with_track, 11);
  EXPECT_EQ(left, 7);
  // What is left can be read and given back, as the caller's.
  EXPECT_EQ(floats(model[0])[0], 2.0f);
  EXPECT_EQ(floats(model[2])[63], 0.1f);
  EXPECT_EQ(track->id, 1);
  EXPECT_EQ(track->kf->transition_matrix, model[0]);
  ox_kalman_release(track->kf);
  ox_mat_release(track->meas);
  std::free(track);
  for (ox_mat_t* matrix : model) ox_mat_release(matrix);
  EXPECT_EQ(alloc_hook::live(), 0);
}

}  // namespace
