// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "alloc_hook.h"
#include "ox.h"
#include "reference/kalman.h"
#include "tracker_harness.h"

namespace {

using harness::bits_of;
using harness::centred;
using harness::float_of;
using harness::floats;
using harness::frame;
using harness::kInfinity;
using harness::kInt32Max;
using harness::kInt32Min;
using harness::kNaN;
using harness::make_tracker;
using harness::Params;
using harness::Record;
using harness::Results;
using harness::TrackerPtr;
using harness::tracks_of;

Params confirming_at(std::int32_t hits) {
  Params p;
  p.confirm_hits = hits;
  return p;
}

ox_track_t* only_track(const TrackerPtr& tracker) {
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  EXPECT_EQ(tracks.size(), 1u);
  return tracks.empty() ? nullptr : tracks[0];
}

void expect_record(const Results& results, std::size_t at, const std::vector<float>& values) {
  for (std::size_t i = 0; i < values.size(); ++i)
    EXPECT_EQ(results.at(at, i), values[i]) << "record " << at << ", field " << i;
}

// ------------------------------------------------------------------------------------------- reading the list

TEST(TrackerProcess, EmptyListOnAnEmptyTrackerSetsOnlyTheFirstResultToTheEndMark) {
  const TrackerPtr tracker = make_tracker({});
  const Results results = frame(tracker, {});
  EXPECT_EQ(tracker->det_count, 0);
  EXPECT_EQ(results.at(0, 0), -1.0f);
  EXPECT_TRUE(results.untouched(1));
}

TEST(TrackerProcess, EmptyListAddsAMissToEveryTrack) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 4, 4), centred(2, 50, 0, 4, 4), centred(1, 100, 0, 4, 4)});
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  frame(tracker, {});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 3u);
  EXPECT_EQ(tracks[0]->misses, 1);
  EXPECT_EQ(tracks[1]->misses, 2);
  EXPECT_EQ(tracks[2]->misses, 2);
  for (const ox_track_t* t : tracks) EXPECT_EQ(t->det_index, -1);
}

TEST(TrackerProcess, ListEndsAtTheFirstZeroLabel) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 4, 4), centred(0, 50, 0, 4, 4), centred(1, 100, 0, 4, 4)});
  EXPECT_EQ(tracker->det_count, 1);
  EXPECT_EQ(tracker->track_count, 1);
}

TEST(TrackerProcess, NegativeZeroEndsTheListToo) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 4, 4), centred(-0.0f, 50, 0, 4, 4), centred(1, 100, 0, 4, 4)});
  EXPECT_EQ(tracker->det_count, 1);
}

TEST(TrackerProcess, FractionBelowOneIsNoEndAndBecomesLabelZero) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(0.3f, 0, 0, 4, 4), centred(-0.9f, 50, 0, 4, 4),
                  centred(std::numeric_limits<float>::denorm_min(), 100, 0, 4, 4)});
  ASSERT_EQ(tracker->det_count, 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(tracker->detections[i].label, 0);
  EXPECT_EQ(tracker->track_count, 3);
}

TEST(TrackerProcess, NaNIsNoEndAndBecomesLabelZero) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(kNaN, 0, 0, 4, 4), centred(-kNaN, 50, 0, 4, 4)});
  ASSERT_EQ(tracker->det_count, 2);
  EXPECT_EQ(tracker->detections[0].label, 0);
  EXPECT_EQ(tracker->detections[1].label, 0);
}

TEST(TrackerProcess, LabelsAreCutTowardZeroAndSaturate) {
  struct Case {
    float given;
    std::int32_t label;
  };
  const Case cases[] = {{1.0f, 1},
                        {2.99f, 2},
                        {-1.0f, -1},
                        {-2.99f, -2},
                        {16777216.0f, 16777216},
                        {2147483520.0f, 2147483520},
                        {2147483648.0f, kInt32Max},
                        {3e38f, kInt32Max},
                        {kInfinity, kInt32Max},
                        {-2147483520.0f, -2147483520},
                        {-2147483648.0f, kInt32Min},
                        {-2147483904.0f, kInt32Min},
                        {-kInfinity, kInt32Min}};
  for (const Case& c : cases) {
    const TrackerPtr tracker = make_tracker(confirming_at(1));
    const Results results = frame(tracker, {centred(c.given, 0, 0, 4, 4)});
    ASSERT_EQ(tracker->det_count, 1) << c.given;
    EXPECT_EQ(tracker->detections[0].label, c.label) << c.given;
    EXPECT_EQ(results.at(0, 1), static_cast<float>(c.label)) << c.given;
  }
}

TEST(TrackerProcess, ReadsCapacityRecordsAndNothingBehindThem) {
  Params p;
  p.count = 2;
  const TrackerPtr tracker = make_tracker(p);
  // Exactly two records on the heap, without an end: one float more would be seen by the address sanitizer.
  const auto list = std::make_unique<float[]>(12);
  for (std::size_t i = 0; i < 2; ++i) {
    const float record[6] = {1, 50 * static_cast<float>(i), 0, 50 * static_cast<float>(i) + 4, 4, 0};
    std::memcpy(list.get() + 6 * i, record, sizeof record);
  }
  ox_tracker_process(tracker.get(), list.get(), nullptr);
  EXPECT_EQ(tracker->det_count, 2);
  EXPECT_EQ(tracker->track_count, 2);

  frame(tracker, {centred(1, 0, 0, 4, 4), centred(1, 50, 0, 4, 4), centred(1, 2, 0, 4, 4)});
  EXPECT_EQ(tracker->det_count, 2);
}

TEST(TrackerProcess, DetectionHoldsCentreSizeAndScoreBits) {
  const TrackerPtr tracker = make_tracker({});
  // A signalling NaN: a copy by value through a float register could change it.
  frame(tracker, {Record{5, 1, 2, 4, 10, 0x7F812345u}, Record{5, 7, 9, 3, 1, 0xFFFFFFFFu}});
  ASSERT_EQ(tracker->det_count, 2);
  const ox_tracker_detection_t& upright = tracker->detections[0];
  EXPECT_EQ(upright.label, 5);
  EXPECT_EQ(upright.cx, 2.5f);
  EXPECT_EQ(upright.cy, 6.0f);
  EXPECT_EQ(upright.w, 3.0f);
  EXPECT_EQ(upright.h, 8.0f);
  EXPECT_EQ(upright.score, 0x7F812345u);
  const ox_tracker_detection_t& reversed = tracker->detections[1];
  EXPECT_EQ(reversed.cx, 5.0f);
  EXPECT_EQ(reversed.cy, 5.0f);
  EXPECT_EQ(reversed.w, -4.0f);
  EXPECT_EQ(reversed.h, -8.0f);
  EXPECT_EQ(reversed.score, 0xFFFFFFFFu);
}

TEST(TrackerProcess, CentreIsTheRoundedSumHalved) {
  const TrackerPtr tracker = make_tracker({});
  // The sum overflows; half of each first would not.
  frame(tracker, {Record{1, 3e38f, 16777216.0f, 3e38f, 16777219.0f, 0}});
  EXPECT_EQ(tracker->detections[0].cx, kInfinity);
  EXPECT_EQ(tracker->detections[0].w, 0.0f);
  // 16777216 + 16777220 (the nearest float to 16777219), exact in double, is rounded to a multiple of 4.
  EXPECT_EQ(tracker->detections[0].cy, 16777218.0f);
  EXPECT_EQ(tracker->detections[0].h, 4.0f);
}

TEST(TrackerProcess, BoxesAreOnlyRead) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  const std::vector<float> list = harness::box_list({centred(1, 0, 0, 4, 4, 0x7F812345u), centred(2, 9, 9, 4, 4)});
  const std::vector<float> copy = list;
  Results results(tracker->capacity);
  ox_tracker_process(tracker.get(), list.data(), results.data());
  EXPECT_EQ(std::memcmp(list.data(), copy.data(), list.size() * sizeof(float)), 0);
}

// -------------------------------------------------------------------------------------------------- prediction

TEST(TrackerProcess, TentativeTrackIsExpectedWhereItWasSeen) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  frame(tracker, {centred(1, 4, 0, 20, 22)});
  frame(tracker, {centred(1, 8, 0, 20, 24)});
  const ox_track_t* const t = only_track(tracker);
  EXPECT_EQ(t->pred_cx, 4.0f);
  EXPECT_EQ(t->pred_cy, 0.0f);
  EXPECT_EQ(t->pred_w, 20.0f);
  EXPECT_EQ(t->pred_h, 22.0f);
}

TEST(TrackerProcess, TrackBornInThisFrameHasNoPredictionYet) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  frame(tracker, {centred(1, 4, 6, 20, 22)});
  const ox_track_t* const t = only_track(tracker);
  EXPECT_EQ(bits_of(t->pred_cx) | bits_of(t->pred_cy) | bits_of(t->pred_w) | bits_of(t->pred_h), 0u);
}

TEST(TrackerProcess, ConfirmedTrackIsExpectedOneStepFurther) {
  const TrackerPtr tracker = make_tracker(confirming_at(2));
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  frame(tracker, {centred(1, 4, -2, 20, 22)});
  frame(tracker, {centred(1, 8, -4, 20, 24)});
  const ox_track_t* const t = only_track(tracker);
  EXPECT_EQ(t->pred_cx, 8.0f);
  EXPECT_EQ(t->pred_cy, -4.0f);
  EXPECT_EQ(t->pred_w, 20.0f);
  EXPECT_EQ(t->pred_h, 24.0f);
}

TEST(TrackerProcess, UnmatchedConfirmedTrackKeepsItsPredictionAndItsBox) {
  const TrackerPtr tracker = make_tracker(confirming_at(2));
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  frame(tracker, {centred(1, 4, 0, 20, 20)});
  for (int i = 0; i < 5; ++i) {
    frame(tracker, {});
    const ox_track_t* const t = only_track(tracker);
    EXPECT_EQ(t->pred_cx, 8.0f);
    EXPECT_EQ(t->cx, 4.0f);
    EXPECT_EQ(t->prev_cx, 0.0f);
  }
}

// ------------------------------------------------------------------------------------------------- association

TEST(TrackerProcess, NineUnitsAwayIsACandidate) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 100, 100)});
  frame(tracker, {centred(1, 9, 0, 100, 100)});
  EXPECT_EQ(tracker->track_count, 1);
  EXPECT_EQ(tracker->det_dist2[0], 81.0f);
  EXPECT_EQ(tracker->det_match[0], only_track(tracker));
}

TEST(TrackerProcess, ExactlyTenUnitsAwayIsNoCandidateAndBegetsATrack) {
  for (const bool diagonal : {false, true}) {
    const TrackerPtr tracker = make_tracker({});
    frame(tracker, {centred(1, 0, 0, 100, 100)});
    frame(tracker, {diagonal ? centred(1, 6, -8, 100, 100) : centred(1, -10, 0, 100, 100)});
    const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
    ASSERT_EQ(tracks.size(), 2u);
    EXPECT_EQ(tracker->det_dist2[0], 100.0f);
    EXPECT_EQ(tracker->det_match[0], tracks[1]);
    EXPECT_EQ(tracks[0]->misses, 1);
  }
}

TEST(TrackerProcess, LastFloatBelowTheGateIsACandidate) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 0, 100)});
  const float closest = std::nextafter(10.0f, 0.0f);
  frame(tracker, {Record{1, closest, -50, closest, 50, 0}});
  // The box has no area: it is refused, but only after it was a candidate.
  EXPECT_EQ(tracker->det_dist2[0], 0.0f);
  EXPECT_EQ(tracker->track_count, 2);
}

TEST(TrackerProcess, EmptyTrackerGivesEveryDetectionTheGateAsDistance) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 4, 4), centred(1, 0, 0, 4, 4)});
  EXPECT_EQ(tracker->det_dist2[0], 100.0f);
  EXPECT_EQ(tracker->det_dist2[1], 100.0f);
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracker->det_match[0], tracks[0]);
  EXPECT_EQ(tracker->det_match[1], tracks[1]);
}

TEST(TrackerProcess, NearestTrackIsChosenAndATieKeepsTheOlderOne) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, -6, 0, 100, 100), centred(1, 6, 0, 100, 100), centred(1, 0, 4, 100, 100)});
  frame(tracker, {centred(1, 0, 0, 100, 100), centred(1, 0, -7, 100, 100)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  EXPECT_EQ(tracker->det_match[0], tracks[2]);
  EXPECT_EQ(tracker->det_dist2[0], 16.0f);
  EXPECT_EQ(tracker->det_match[1], tracks[0]);
  EXPECT_EQ(tracker->det_dist2[1], 85.0f);
}

TEST(TrackerProcess, NearerLaterDetectionTakesTheTrackAway) {
  Params p;
  p.count = 3;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(1, 0, 0, 100, 100)});
  frame(tracker, {centred(1, 5, 0, 100, 100), centred(1, 3, 0, 100, 100)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracks[0]->det_index, 1);
  EXPECT_EQ(tracks[0]->cx, 3.0f);
  EXPECT_EQ(tracker->det_match[1], tracks[0]);
  EXPECT_EQ(tracker->det_dist2[1], 9.0f);
  // The loser begets a track.
  EXPECT_EQ(tracker->det_match[0], tracks[1]);
  EXPECT_EQ(tracker->det_dist2[0], 0.0f);
  EXPECT_EQ(tracks[1]->id, -1);
  EXPECT_EQ(tracks[1]->cx, 5.0f);
}

TEST(TrackerProcess, FartherLaterDetectionIsRefused) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 100, 100)});
  frame(tracker, {centred(1, 3, 0, 100, 100), centred(1, 5, 0, 100, 100)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracks[0]->det_index, 0);
  EXPECT_EQ(tracker->det_dist2[0], 9.0f);
  EXPECT_EQ(tracker->det_dist2[1], 0.0f);
  EXPECT_EQ(tracker->det_match[1], tracks[1]);
}

TEST(TrackerProcess, EqualDistancesKeepTheEarlierDetection) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 100, 100)});
  frame(tracker, {centred(1, 5, 0, 100, 100), centred(1, -3, 4, 100, 100)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracks[0]->det_index, 0);
  EXPECT_EQ(tracker->det_dist2[0], 25.0f);
  EXPECT_EQ(tracker->det_dist2[1], 0.0f);
}

TEST(TrackerProcess, TrackMayBeTakenAwayMoreThanOnce) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 100, 100)});
  frame(tracker, {centred(1, 6, 0, 100, 100), centred(1, 4, 0, 100, 100), centred(1, 2, 0, 100, 100),
                  centred(1, 3, 0, 100, 100)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 4u);
  EXPECT_EQ(tracks[0]->det_index, 2);
  EXPECT_EQ(tracker->det_dist2[0], 0.0f);
  EXPECT_EQ(tracker->det_dist2[1], 0.0f);
  EXPECT_EQ(tracker->det_dist2[2], 4.0f);
  EXPECT_EQ(tracker->det_dist2[3], 0.0f);
}

TEST(TrackerProcess, LoserIsNotOfferedToAnotherTrack) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 100, 100), centred(1, 8, 0, 100, 100)});
  // Both are nearest to the first track; the second track is in reach of either and stays without a match.
  frame(tracker, {centred(1, 3, 0, 100, 100), centred(1, 2, 0, 100, 100)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 3u);
  EXPECT_EQ(tracks[0]->det_index, 1);
  EXPECT_EQ(tracks[1]->det_index, -1);
  EXPECT_EQ(tracks[1]->misses, 1);
  EXPECT_EQ(tracker->det_match[0], tracks[2]);
}

TEST(TrackerProcess, RefusedNearestCandidateIsNotReplacedByAnOverlappingOne) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 4, 4), centred(1, 0, 9, 100, 100)});
  // Nearest to the small box, which it does not overlap enough.
  frame(tracker, {centred(1, 0, 4, 100, 100)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 3u);
  EXPECT_EQ(tracks[0]->misses, 1);
  EXPECT_EQ(tracks[1]->misses, 1);
  EXPECT_EQ(tracker->det_dist2[0], 0.0f);
  EXPECT_EQ(tracker->det_match[0], tracks[2]);
}

TEST(TrackerProcess, OverlapMustExceedTheThreshold) {
  // 10 x 10 boxes shifted by 6: 40 / (100 + 100 - 40) = 1/4.
  for (const bool equal : {true, false}) {
    Params p;
    p.iou_threshold = equal ? 0.25f : std::nextafter(0.25f, 0.0f);
    const TrackerPtr tracker = make_tracker(p);
    frame(tracker, {centred(1, 0, 0, 10, 10)});
    frame(tracker, {centred(1, 6, 0, 10, 10)});
    EXPECT_EQ(tracker->track_count, equal ? 2 : 1);
    EXPECT_EQ(tracker->det_dist2[0], equal ? 0.0f : 36.0f);
  }
}

TEST(TrackerProcess, TouchingBoxesDoNotOverlap) {
  Params p;
  p.iou_threshold = 0.0f;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(1, 0, 0, 6, 6)});
  frame(tracker, {centred(1, 6, 0, 6, 6)});
  EXPECT_EQ(tracker->track_count, 2);
  EXPECT_EQ(tracker->det_dist2[0], 0.0f);
}

TEST(TrackerProcess, BoxesApartInBothDirectionsDoNotOverlap) {
  Params p;
  p.iou_threshold = 0.0f;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  // Width and height of the overlap are both negative; their product is not taken for an intersection.
  frame(tracker, {centred(1, 6, 6, 4, 4)});
  EXPECT_EQ(tracker->track_count, 2);
}

TEST(TrackerProcess, NearPairMatchesWhateverItsSizes) {
  Params p;
  p.near_dist2 = 1.0f;
  p.iou_threshold = 0.99f;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(1, 0, 0, 2, 2)});
  frame(tracker, {centred(1, 1, 0, 500, 0)});
  EXPECT_EQ(only_track(tracker)->hits, 2);
  EXPECT_EQ(tracker->det_dist2[0], 1.0f);
}

TEST(TrackerProcess, JustBeyondNearTheSizesCount) {
  Params p;
  p.near_dist2 = 1.0f;
  p.iou_threshold = 0.5f;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(1, 0, 0, 2, 2)});
  const float beyond = std::nextafter(1.0f, 2.0f);
  frame(tracker, {Record{1, beyond, -1, beyond, 1, 0}});
  EXPECT_EQ(tracker->track_count, 2);
}

TEST(TrackerProcess, ThresholdOneRefusesEvenANearPair) {
  Params p;
  p.iou_threshold = 1.0f;
  const TrackerPtr tracker = make_tracker(p);
  for (int i = 1; i <= 3; ++i) {
    frame(tracker, {centred(1, 0, 0, 10, 10)});
    EXPECT_EQ(tracker->track_count, i);
    EXPECT_EQ(tracker->prev->hits, 1);
  }
}

TEST(TrackerProcess, ThresholdOneIsExceededByAnOverlapThatRoundsAboveOne) {
  Params p;
  p.iou_threshold = 1.0f;
  p.near_dist2 = 0.0f;
  const TrackerPtr tracker = make_tracker(p);
  // Around 2^20 floats are 1/8 apart: edges of a height of 3/8 round outward to 4/8, so that the intersection
  // grows beyond either box.
  const float top = 1048576.0f;
  const float bottom = 1048576.375f;
  frame(tracker, {Record{1, 0, top, 100, bottom, 0}});
  EXPECT_EQ(tracker->detections[0].h, 0.375f);
  frame(tracker, {Record{1, 1, top, 101, bottom, 0}});
  EXPECT_EQ(only_track(tracker)->hits, 2);
  EXPECT_EQ(tracker->det_dist2[0], 1.0f);
}

TEST(TrackerProcess, BoxesWithoutAreaGiveNoOverlapAndAreRefused) {
  Params p;
  p.near_dist2 = 0.0f;
  p.iou_threshold = 0.0f;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(1, 0, 0, 0, 0)});
  frame(tracker, {centred(1, 2, 0, 0, 0)});  // 0 / 0
  EXPECT_EQ(tracker->track_count, 2);
  EXPECT_EQ(tracker->det_dist2[0], 0.0f);
  ox_tracker_set_params(tracker.get(), 3, 10, 0, 0.0f, -kInfinity);
  frame(tracker, {centred(1, 1, 0, 0, 0)});  // not a number exceeds nothing
  EXPECT_EQ(tracker->track_count, 3);
}

TEST(TrackerProcess, NegativeThresholdMatchesBoxesThatDoNotOverlap) {
  const TrackerPtr tracker = make_tracker({});
  ox_tracker_set_params(tracker.get(), 3, 10, 0, 1.0f, -0.5f);
  frame(tracker, {centred(1, 0, 0, 2, 2)});
  frame(tracker, {centred(1, 9, 0, 2, 2)});
  EXPECT_EQ(only_track(tracker)->hits, 2);
}

TEST(TrackerProcess, NearDistanceAboveTheGateMatchesEveryCandidate) {
  const TrackerPtr tracker = make_tracker({});
  ox_tracker_set_params(tracker.get(), 3, 10, 0, 1000.0f, 0.9f);
  frame(tracker, {centred(1, 0, 0, 2, 2)});
  frame(tracker, {centred(1, 9, 0, 0, -5)});
  EXPECT_EQ(only_track(tracker)->hits, 2);
}

TEST(TrackerProcess, NotANumberParametersMatchNothingAndNearNothing) {
  const TrackerPtr tracker = make_tracker({});
  ox_tracker_set_params(tracker.get(), 3, 10, 0, kNaN, 0.3f);
  frame(tracker, {centred(1, 0, 0, 10, 10)});
  frame(tracker, {centred(1, 0, 0, 10, 10)});  // not near, but the overlap is 1
  EXPECT_EQ(only_track(tracker)->hits, 2);
  ox_tracker_set_params(tracker.get(), 3, 10, 0, 1.0f, kNaN);
  frame(tracker, {centred(1, 0, 0, 10, 10)});
  EXPECT_EQ(tracker->track_count, 2);
}

TEST(TrackerProcess, UnionTakesTheIntersectionFromTheSumOfAreas) {
  // 16777216 + 1 is rounded to 16777216 before the intersection of 1 is taken off. Any other grouping would keep
  // the 1 and give a quotient just below; the threshold lies between them.
  Params p;
  p.near_dist2 = 0.0f;
  const TrackerPtr tracker = make_tracker(p);
  const float as_written = 1.0f / 16777215.0f;
  const float regrouped = 1.0f / 16777216.0f;
  ASSERT_GT(as_written, regrouped);
  ox_tracker_set_params(tracker.get(), 3, 10, 0, 0.0f, regrouped);
  frame(tracker, {centred(1, 0, 0, 4096, 4096)});
  frame(tracker, {centred(1, 2, 0, 1, 1)});
  EXPECT_EQ(only_track(tracker)->hits, 2);
}

TEST(TrackerProcess, NotANumberCentreIsNeverACandidate) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {Record{1, kNaN, 0, 4, 4, 0}});
  EXPECT_EQ(tracker->track_count, 1);
  frame(tracker, {Record{1, kNaN, 0, 4, 4, 0}, centred(1, 2, 2, 4, 4)});
  EXPECT_EQ(tracker->track_count, 3);
  EXPECT_EQ(tracker->det_dist2[0], 100.0f);
  EXPECT_EQ(tracker->det_dist2[1], 100.0f);
}

TEST(TrackerProcess, InfiniteBoxesAreTrackedWithoutHarm) {
  Params p = confirming_at(1);
  p.max_misses = 100;
  const TrackerPtr tracker = make_tracker(p);
  const Results results =
      frame(tracker, {Record{1, -kInfinity, 0, kInfinity, 4, 0}, Record{1, -3e38f, 0, 3e38f, 4, 0}});
  ASSERT_EQ(results.size(), 2u);
  EXPECT_NE(tracker->detections[0].cx, tracker->detections[0].cx);
  EXPECT_EQ(tracker->detections[1].w, kInfinity);
  for (int i = 0; i < 20; ++i) frame(tracker, {Record{1, -3e38f, 0, 3e38f, 4, 0}});
  EXPECT_TRUE(harness::ring_is_whole(tracker.get()));
  EXPECT_EQ(tracker->track_count, 10);  // none of them is ever met again
}

TEST(TrackerProcess, OwnLabelOnlyWhenAnyLabelIsZero) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 10, 10)});
  frame(tracker, {centred(2, 0, 0, 10, 10)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracker->det_dist2[0], 100.0f);
  EXPECT_EQ(tracks[0]->label, 1);
  EXPECT_EQ(tracks[0]->misses, 1);
  EXPECT_EQ(tracks[1]->label, 2);
}

TEST(TrackerProcess, AnyLabelMatchesAcrossLabelsAndTheTrackTakesTheNewOne) {
  for (const std::uint32_t any_label : {1u, 0x80000000u}) {
    Params p;
    p.any_label = any_label;
    const TrackerPtr tracker = make_tracker(p);
    frame(tracker, {centred(1, 0, 0, 10, 10)});
    frame(tracker, {centred(2, 0, 0, 10, 10)});
    EXPECT_EQ(only_track(tracker)->label, 2);
    EXPECT_EQ(only_track(tracker)->hits, 2);
  }
}

TEST(TrackerProcess, FractionsOfALabelAreTheSameLabel) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(3.2f, 0, 0, 10, 10)});
  frame(tracker, {centred(3.9f, 0, 0, 10, 10)});
  EXPECT_EQ(only_track(tracker)->hits, 2);
}

// ------------------------------------------------------------------------------------------------------ birth

TEST(TrackerProcess, CapacityTwoBearsTwoOfThree) {
  Params p;
  p.count = 2;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(1, 0, 0, 4, 4), centred(1, 50, 0, 4, 4), centred(1, 100, 0, 4, 4)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracks[0]->cx, 0.0f);
  EXPECT_EQ(tracks[1]->cx, 50.0f);
  EXPECT_EQ(tracks[0]->id, -1);
  EXPECT_EQ(tracks[1]->id, -1);
}

TEST(TrackerProcess, FullTrackerLeavesTheRestWithoutATrack) {
  Params p;
  p.count = 2;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(1, 0, 0, 4, 4), centred(1, 50, 0, 4, 4)});
  frame(tracker, {centred(1, 100, 0, 4, 4), centred(1, 50, 0, 4, 4)});
  EXPECT_EQ(tracker->det_match[0], nullptr);
  EXPECT_EQ(tracker->det_match[1], tracks_of(tracker.get())[1]);
  EXPECT_EQ(tracker->track_count, 2);
}

TEST(TrackerProcess, NewbornTrackHoldsItsDetection) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 4, 4), centred(7, 10, 20, 30, 40, 0xABCD1234u)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 2u);
  const ox_track_t& t = *tracks[1];
  EXPECT_EQ(t.id, -1);
  EXPECT_EQ(t.label, 7);
  EXPECT_EQ(t.cx, 10.0f);
  EXPECT_EQ(t.cy, 20.0f);
  EXPECT_EQ(t.w, 30.0f);
  EXPECT_EQ(t.h, 40.0f);
  EXPECT_EQ(t.score, 0xABCD1234u);
  EXPECT_EQ(t.prev_cx, 10.0f);
  EXPECT_EQ(t.prev_cy, 20.0f);
  EXPECT_EQ(t.prev_w, 30.0f);
  EXPECT_EQ(t.prev_h, 40.0f);
  EXPECT_EQ(t.kf, nullptr);
  EXPECT_EQ(t.meas, nullptr);
  EXPECT_EQ(t.det_index, 1);
  EXPECT_EQ(t.misses, 0);
  EXPECT_EQ(t.hits, 1);
}

TEST(TrackerProcess, TracksStandInTheOrderOfTheirBirth) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  frame(tracker, {centred(1, 100, 0, 4, 4)});
  frame(tracker, {centred(1, 0, 0, 4, 4), centred(1, 100, 0, 4, 4), centred(1, 50, 0, 4, 4)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 3u);
  EXPECT_EQ(tracks[0]->cx, 100.0f);
  EXPECT_EQ(tracks[1]->cx, 0.0f);
  EXPECT_EQ(tracks[2]->cx, 50.0f);
  EXPECT_EQ(tracker->next, tracks[0]);
  EXPECT_EQ(tracker->prev, tracks[2]);
  EXPECT_TRUE(harness::ring_is_whole(tracker.get()));
}

TEST(TrackerProcess, FailedBirthIsSkippedAndTheNextDetectionIsBorn) {
  const TrackerPtr tracker = make_tracker({});
  const std::vector<float> list =
      harness::box_list({centred(1, 0, 0, 4, 4), centred(1, 50, 0, 4, 4), centred(1, 100, 0, 4, 4)});
  alloc_hook::fail_from(2, 1);
  ox_tracker_process(tracker.get(), list.data(), nullptr);
  alloc_hook::reset();
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracks[0]->cx, 0.0f);
  EXPECT_EQ(tracks[1]->cx, 100.0f);
  EXPECT_EQ(tracker->det_match[0], tracks[0]);
  EXPECT_EQ(tracker->det_match[1], nullptr);
  EXPECT_EQ(tracker->det_match[2], tracks[1]);
  EXPECT_EQ(tracker->track_count, 2);
}

// ---------------------------------------------------------------------------------- confirmation and correction

TEST(TrackerProcess, ThirdMatchConfirmsAndReportsTheRawBox) {
  const TrackerPtr tracker = make_tracker(confirming_at(3));
  EXPECT_EQ(frame(tracker, {centred(1, 0, 0, 20, 20)}).size(), 0u);
  EXPECT_EQ(frame(tracker, {centred(1, 2, 1, 20, 20)}).size(), 0u);
  EXPECT_EQ(only_track(tracker)->id, -1);
  const Results third = frame(tracker, {centred(1, 5, 3, 22, 24, 0x3F000000u)});
  ASSERT_EQ(third.size(), 1u);
  expect_record(third, 0, {1, 1, -6, -9, 16, 15, 0.5f, 0});

  const ox_track_t& t = *only_track(tracker);
  EXPECT_EQ(t.id, 1);
  EXPECT_EQ(tracker->next_id, 2);
  ASSERT_NE(t.kf, nullptr);
  ASSERT_NE(t.meas, nullptr);
  const float state[8] = {5, 3, 2, 1, 22, 24, 20, 20};
  EXPECT_EQ(std::memcmp(t.kf->state_post->data, state, sizeof state), 0);
  for (int i = 0; i < 64; ++i) EXPECT_EQ(floats(t.kf->error_cov_post)[i], i % 9 == 0 ? 1.0f : 0.0f);
  EXPECT_EQ(t.kf->state_dim, 8u);
  EXPECT_EQ(t.kf->meas_dim, 4u);
  EXPECT_EQ(t.kf->transition_matrix, tracker->transition_matrix);
  EXPECT_EQ(t.kf->measurement_matrix, tracker->measurement_matrix);
  EXPECT_EQ(t.kf->process_noise_cov, tracker->process_noise_cov);
  EXPECT_EQ(t.kf->measurement_noise_cov, tracker->measurement_noise_cov);
  EXPECT_EQ(t.meas->rows, 4);
  EXPECT_EQ(t.meas->cols, 1);
  EXPECT_EQ(t.meas->type, OX_F32);
}

TEST(TrackerProcess, FourthMatchIsCorrectedByTheFilter) {
  const TrackerPtr tracker = make_tracker(confirming_at(3));
  reference::Kalman filter(8, 4, reference::Tracker::model());
  for (int i = 0; i < 3; ++i) frame(tracker, {centred(1, static_cast<float>(2 * i), 0, 20, 20)});
  const Results fourth = frame(tracker, {centred(1, 7, 1, 22, 20)});

  for (std::size_t i = 0; i < 8; ++i) filter.error_cov_post[i * 9] = 1.0f;
  filter.state_post = {4, 0, 2, 0, 20, 20, 20, 20};
  filter.predict();
  filter.correct({7, 1, 22, 20});
  const std::vector<float>& x = filter.state_post;

  const ox_track_t& t = *only_track(tracker);
  EXPECT_EQ(t.cx, x[0]);
  EXPECT_EQ(t.cy, x[1]);
  EXPECT_EQ(t.w, x[4]);
  EXPECT_EQ(t.h, x[5]);
  EXPECT_GT(t.cx, 6.0f);  // between prediction and detection
  EXPECT_LT(t.cx, 7.0f);
  const float measured[4] = {7, 1, 22, 20};
  EXPECT_EQ(std::memcmp(t.meas->data, measured, sizeof measured), 0);
  EXPECT_EQ(fourth.at(0, 2), t.cx - t.w * 0.5f);
  EXPECT_EQ(fourth.at(0, 5), t.cy + t.h * 0.5f);
}

TEST(TrackerProcess, PreviousBoxIsTheOneBeforeTheUpdate) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  frame(tracker, {centred(1, 2, 0, 20, 20)});
  const float corrected = only_track(tracker)->cx;
  EXPECT_GT(corrected, 0.0f);
  EXPECT_LT(corrected, 2.0f);
  EXPECT_EQ(only_track(tracker)->prev_cx, 0.0f);
  frame(tracker, {centred(1, 4, 0, 20, 20)});
  EXPECT_EQ(only_track(tracker)->prev_cx, corrected);
}

TEST(TrackerProcess, ConfirmationAtTheFirstHitReportsTheNewbornAtRest) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  const Results results = frame(tracker, {centred(4, 10, 20, 6, 8, 0x3F800000u)});
  ASSERT_EQ(results.size(), 1u);
  expect_record(results, 0, {1, 4, 7, 16, 13, 24, 1, 0});
  const float state[8] = {10, 20, 10, 20, 6, 8, 6, 8};
  EXPECT_EQ(std::memcmp(only_track(tracker)->kf->state_post->data, state, sizeof state), 0);
}

TEST(TrackerProcess, IdentitiesCountUpInTheOrderOfConfirmation) {
  const TrackerPtr tracker = make_tracker(confirming_at(2));
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  frame(tracker, {centred(1, 50, 0, 4, 4)});
  frame(tracker, {centred(1, 50, 0, 4, 4)});
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracks[0]->id, 2);
  EXPECT_EQ(tracks[1]->id, 1);
}

TEST(TrackerProcess, HitsNeedNotBeConsecutive) {
  const TrackerPtr tracker = make_tracker(confirming_at(3));
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  for (int i = 0; i < 3; ++i) frame(tracker, {});
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  EXPECT_EQ(only_track(tracker)->misses, 0);
  EXPECT_EQ(only_track(tracker)->hits, 2);
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  EXPECT_EQ(only_track(tracker)->id, 1);
}

TEST(TrackerProcess, IdentityOneFollowsTheLastOne) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  tracker->next_id = 1048573;
  frame(tracker, {centred(1, 0, 0, 4, 4), centred(1, 50, 0, 4, 4), centred(1, 100, 0, 4, 4)});
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 3u);
  EXPECT_EQ(tracks[0]->id, 1048573);
  EXPECT_EQ(tracks[1]->id, 1048574);
  EXPECT_EQ(tracks[2]->id, 1);
  EXPECT_EQ(tracker->next_id, 2);
}

// The counter is a field of the record: whoever starts it at 0 gets a confirmed track all the same.
TEST(TrackerProcess, IdentityZeroIsConfirmed) {
  const TrackerPtr tracker = make_tracker(confirming_at(2));
  tracker->next_id = 0;
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  frame(tracker, {centred(1, 4, 0, 20, 20)});
  frame(tracker, {centred(1, 8, 0, 20, 20)});
  const ox_track_t* const t = only_track(tracker);
  EXPECT_EQ(t->id, 0);
  EXPECT_EQ(t->pred_cx, 8.0f);  // one step further, and not where it was seen
  EXPECT_EQ(tracker->next_id, 1);
}

TEST(TrackerProcess, FailedFilterLeavesTheTrackTentativeUntilItsNextMatch) {
  for (const long failing : {1L, 2L}) {  // the filter, the measurement
    SCOPED_TRACE(failing);
    const TrackerPtr tracker = make_tracker(confirming_at(2));
    frame(tracker, {centred(1, 0, 0, 4, 4)});
    const std::vector<float> list = harness::box_list({centred(1, 1, 0, 4, 4)});
    Results results(tracker->capacity);
    alloc_hook::reset();
    alloc_hook::fail_from(failing, 1);
    ox_tracker_process(tracker.get(), list.data(), results.data());
    const long live = alloc_hook::live();
    alloc_hook::reset();
    const ox_track_t* const t = only_track(tracker);
    EXPECT_EQ(live, 0);
    EXPECT_EQ(results.size(), 0u);
    EXPECT_EQ(t->id, -1);
    EXPECT_EQ(t->kf, nullptr);
    EXPECT_EQ(t->meas, nullptr);
    EXPECT_EQ(t->hits, 2);
    EXPECT_EQ(t->cx, 1.0f);
    EXPECT_EQ(tracker->next_id, 1);

    const Results retried = frame(tracker, {centred(1, 2, 0, 4, 4)});
    ASSERT_EQ(retried.size(), 1u);
    EXPECT_EQ(t->id, 1);
    EXPECT_EQ(t->hits, 3);
    EXPECT_EQ(t->cx, 2.0f);  // confirmed, not corrected
    EXPECT_EQ(tracker->next_id, 2);
  }
}

TEST(TrackerProcess, FailedConfirmationOfANewbornLeavesItTentative) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  const std::vector<float> list = harness::box_list({centred(1, 0, 0, 4, 4), centred(1, 50, 0, 4, 4)});
  alloc_hook::fail_from(3, 1);  // two births come first
  ox_tracker_process(tracker.get(), list.data(), nullptr);
  alloc_hook::reset();
  const std::vector<ox_track_t*> tracks = tracks_of(tracker.get());
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(tracks[0]->id, -1);
  EXPECT_EQ(tracks[1]->id, 1);
}

TEST(TrackerProcess, AllocatesOneBlockForABirthAndTwoForAConfirmation) {
  const TrackerPtr tracker = make_tracker(confirming_at(2));
  const std::vector<float> list = harness::box_list({centred(1, 0, 0, 4, 4)});
  const long expected_calls[4] = {1, 2, 0, 0};
  for (const long expected : expected_calls) {
    alloc_hook::reset();
    ox_tracker_process(tracker.get(), list.data(), nullptr);
    const long calls = alloc_hook::calls();
    const long live = alloc_hook::live();
    EXPECT_EQ(calls, expected);
    EXPECT_EQ(live, expected);
  }
}

// ----------------------------------------------------------------------------------- parameters in mid-stream

TEST(TrackerProcess, LoweredConfirmHitsConfirmAtTheNextMatch) {
  for (const std::int32_t lowered : {4, 3, 1, 0, -5, kInt32Min}) {
    SCOPED_TRACE(lowered);
    const TrackerPtr tracker = make_tracker(confirming_at(10));
    for (int i = 0; i < 3; ++i) frame(tracker, {centred(1, static_cast<float>(i), 0, 20, 20)});
    ox_tracker_set_params(tracker.get(), lowered, 10, 0, 1.0f, 0.3f);
    const Results results = frame(tracker, {centred(1, 3, 0, 20, 20)});
    ASSERT_EQ(results.size(), 1u);
    const ox_track_t& t = *only_track(tracker);
    EXPECT_EQ(t.id, 1);
    EXPECT_EQ(t.hits, 4);
    EXPECT_EQ(t.cx, 3.0f);  // confirmed with the detection as its box
    const float state[8] = {3, 0, 2, 0, 20, 20, 20, 20};
    EXPECT_EQ(std::memcmp(t.kf->state_post->data, state, sizeof state), 0);
  }
}

TEST(TrackerProcess, LoweredConfirmHitsAloneConfirmNothing) {
  const TrackerPtr tracker = make_tracker(confirming_at(10));
  for (int i = 0; i < 3; ++i) frame(tracker, {centred(1, 0, 0, 20, 20)});
  ox_tracker_set_params(tracker.get(), 1, 10, 0, 1.0f, 0.3f);
  frame(tracker, {});
  EXPECT_EQ(only_track(tracker)->id, -1);
  EXPECT_EQ(only_track(tracker)->hits, 3);
}

TEST(TrackerProcess, ConfirmHitsOfZeroConfirmAtTheFirstMatch) {
  const TrackerPtr tracker = make_tracker({});
  ox_tracker_set_params(tracker.get(), 0, 10, 0, 1.0f, 0.3f);
  const Results results = frame(tracker, {centred(1, 0, 0, 20, 20)});
  EXPECT_EQ(results.size(), 1u);
  EXPECT_EQ(only_track(tracker)->id, 1);
  frame(tracker, {centred(1, 2, 0, 20, 20)});
  EXPECT_LT(only_track(tracker)->cx, 2.0f);
}

TEST(TrackerProcess, ConfirmedTrackBelowRaisedConfirmHitsTakesTheRawDetection) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  ox_kalman_t* const filter = only_track(tracker)->kf;
  ox_tracker_set_params(tracker.get(), 4, 10, 0, 1.0f, 0.3f);
  for (int hits = 2; hits <= 3; ++hits) {
    const Results results = frame(tracker, {centred(1, 2, 0, 20, 20)});
    EXPECT_EQ(results.size(), 1u);
    EXPECT_EQ(only_track(tracker)->hits, hits);
    EXPECT_EQ(only_track(tracker)->cx, 2.0f);
    EXPECT_EQ(only_track(tracker)->id, 1);
    EXPECT_EQ(floats(filter->state_post)[0], 0.0f);  // the filter is left alone
  }
}

TEST(TrackerProcess, ConfirmedTrackThatReachesRaisedConfirmHitsIsCorrectedNotConfirmedAgain) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  ox_kalman_t* const filter = only_track(tracker)->kf;
  ox_tracker_set_params(tracker.get(), 2, 10, 0, 1.0f, 0.3f);
  const std::vector<float> list = harness::box_list({centred(1, 2, 0, 20, 20)});
  alloc_hook::reset();
  ox_tracker_process(tracker.get(), list.data(), nullptr);
  const long calls = alloc_hook::calls();
  EXPECT_EQ(calls, 0);
  const ox_track_t& t = *only_track(tracker);
  EXPECT_EQ(t.hits, 2);
  EXPECT_EQ(t.id, 1);
  EXPECT_EQ(t.kf, filter);
  EXPECT_EQ(tracker->next_id, 2);
  EXPECT_GT(t.cx, 0.0f);
  EXPECT_LT(t.cx, 2.0f);
}

TEST(TrackerProcess, LoweredMaxMissesDeleteAtTheNextMiss) {
  for (const std::int32_t lowered : {2, 0, -1, kInt32Min}) {
    const TrackerPtr tracker = make_tracker(confirming_at(1));
    frame(tracker, {centred(1, 0, 0, 20, 20)});
    frame(tracker, {});
    frame(tracker, {});
    ox_tracker_set_params(tracker.get(), 1, lowered, 0, 1.0f, 0.3f);
    frame(tracker, {});
    EXPECT_EQ(tracker->track_count, 0) << lowered;
  }
}

TEST(TrackerProcess, MaxMissesOfZeroDeleteAtTheFirstMissOnly) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  ox_tracker_set_params(tracker.get(), 1, 0, 0, 1.0f, 0.3f);
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  EXPECT_EQ(tracker->track_count, 1);
  frame(tracker, {});
  EXPECT_EQ(tracker->track_count, 0);
}

// --------------------------------------------------------------------------------------------- misses and deaths

TEST(TrackerProcess, TentativeTrackLosesItsHitsAtTheFourthMissAndDiesAtTheSixth) {
  Params p;
  p.max_misses = 10;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  for (int misses = 1; misses <= 5; ++misses) {
    frame(tracker, {});
    EXPECT_EQ(only_track(tracker)->misses, misses);
    EXPECT_EQ(only_track(tracker)->hits, misses <= 3 ? 2 : 0);
  }
  alloc_hook::reset();
  const float end = 0.0f;
  ox_tracker_process(tracker.get(), &end, nullptr);
  const long live = alloc_hook::live();
  EXPECT_EQ(live, -1);
  EXPECT_EQ(tracker->track_count, 0);
  EXPECT_TRUE(harness::is_head(tracker.get(), tracker->next));
  EXPECT_TRUE(harness::is_head(tracker.get(), tracker->prev));
}

TEST(TrackerProcess, TentativeTrackWithForgottenHitsStartsToCountAgain) {
  const TrackerPtr tracker = make_tracker(confirming_at(3));
  for (int i = 0; i < 2; ++i) frame(tracker, {centred(1, 0, 0, 20, 20)});
  for (int i = 0; i < 5; ++i) frame(tracker, {});
  for (int hits = 1; hits <= 2; ++hits) {
    frame(tracker, {centred(1, 0, 0, 20, 20)});
    EXPECT_EQ(only_track(tracker)->hits, hits);
    EXPECT_EQ(only_track(tracker)->id, -1);
  }
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  EXPECT_EQ(only_track(tracker)->id, 1);
}

TEST(TrackerProcess, MaxMissesOneDeletesAtTheSecondMissAndReportsTheFirst) {
  Params p = confirming_at(1);
  p.max_misses = 1;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(3, 10, 20, 6, 8, 0x3F800000u)});
  const Results first = frame(tracker, {});
  ASSERT_EQ(first.size(), 1u);
  expect_record(first, 0, {1, 3, 7, 16, 13, 24, 1, -1});

  alloc_hook::reset();
  const float end = 0.0f;
  ox_tracker_process(tracker.get(), &end, nullptr);
  const long live = alloc_hook::live();
  EXPECT_EQ(live, -3);  // the track, its filter and its measurement
  EXPECT_EQ(tracker->track_count, 0);
}

TEST(TrackerProcess, MaxMissesOneDeletesATentativeTrackAtTheSecondMiss) {
  Params p;
  p.max_misses = 1;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(3, 10, 20, 6, 8)});
  frame(tracker, {});
  EXPECT_EQ(tracker->track_count, 1);
  frame(tracker, {});
  EXPECT_EQ(tracker->track_count, 0);
}

TEST(TrackerProcess, ConfirmedTrackKeepsItsHitsAndLivesToMaxMisses) {
  Params p = confirming_at(2);
  p.max_misses = 8;
  const TrackerPtr tracker = make_tracker(p);
  for (int i = 0; i < 3; ++i) frame(tracker, {centred(1, 0, 0, 20, 20)});
  for (int misses = 1; misses <= 8; ++misses) {
    const Results results = frame(tracker, {});
    EXPECT_EQ(results.size(), misses <= 2 ? 1u : 0u);
    EXPECT_EQ(only_track(tracker)->hits, 3);
    EXPECT_EQ(only_track(tracker)->misses, misses);
  }
  frame(tracker, {});
  EXPECT_EQ(tracker->track_count, 0);
}

TEST(TrackerProcess, UnreportedTrackComesBackWithItsIdentity) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  frame(tracker, {centred(1, 0, 0, 20, 20)});
  for (int i = 0; i < 4; ++i) frame(tracker, {});
  const Results results = frame(tracker, {centred(1, 0, 0, 20, 20)});
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results.at(0, 0), 1.0f);
  EXPECT_EQ(results.at(0, 7), 0.0f);
}

TEST(TrackerProcess, DeathsAnywhereInTheRingLeaveItWhole) {
  // Of five tracks every subset dies at once.
  for (unsigned kept = 0; kept < 32; ++kept) {
    Params p = confirming_at(2);
    p.max_misses = 1;
    const TrackerPtr tracker = make_tracker(p);
    std::vector<Record> all;
    std::vector<Record> some;
    for (unsigned i = 0; i < 5; ++i) {
      all.push_back(centred(1, static_cast<float>(50 * i), 0, 4, 4));
      if ((kept >> i & 1u) != 0) some.push_back(all.back());
    }
    frame(tracker, all);
    frame(tracker, some);
    frame(tracker, some);
    EXPECT_TRUE(harness::ring_is_whole(tracker.get())) << kept;
    std::vector<float> centres;
    for (const ox_track_t* t : tracks_of(tracker.get())) centres.push_back(t->cx);
    std::vector<float> expected;
    for (const Record& record : some) expected.push_back((record.x1 + record.x2) * 0.5f);
    EXPECT_EQ(centres, expected) << kept;
  }
}

TEST(TrackerProcess, DeathFreesCapacityFromTheNextFrameOn) {
  Params p;
  p.count = 1;
  p.max_misses = 1;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  frame(tracker, {centred(1, 50, 0, 4, 4)});
  EXPECT_EQ(tracker->track_count, 1);
  frame(tracker, {centred(1, 50, 0, 4, 4)});  // births come before deaths
  EXPECT_EQ(tracker->track_count, 0);
  frame(tracker, {centred(1, 50, 0, 4, 4)});
  EXPECT_EQ(only_track(tracker)->cx, 50.0f);
}

TEST(TrackerProcess, MissesStopAtTheLargestNumber) {
  Params p = confirming_at(1);
  p.max_misses = kInt32Max;
  const TrackerPtr tracker = make_tracker(p);
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  only_track(tracker)->misses = kInt32Max - 1;
  for (int i = 0; i < 3; ++i) {
    frame(tracker, {});
    EXPECT_EQ(only_track(tracker)->misses, kInt32Max);
  }
}

TEST(TrackerProcess, HitsStopAtTheLargestNumber) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  only_track(tracker)->hits = kInt32Max - 1;
  for (int i = 0; i < 3; ++i) {
    frame(tracker, {centred(1, 2, 0, 4, 4)});
    EXPECT_EQ(only_track(tracker)->hits, kInt32Max);
    EXPECT_EQ(only_track(tracker)->id, 1);
    EXPECT_NE(only_track(tracker)->cx, 2.0f);  // still corrected
  }
}

TEST(TrackerProcess, HitsAtTheLargestNumberConfirmOnceWhenThatIsAsked) {
  const TrackerPtr tracker = make_tracker(confirming_at(kInt32Max));
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  only_track(tracker)->hits = kInt32Max - 1;
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  EXPECT_EQ(only_track(tracker)->id, 1);
  frame(tracker, {centred(1, 0, 0, 4, 4)});
  EXPECT_EQ(only_track(tracker)->id, 1);
  EXPECT_EQ(tracker->next_id, 2);
}

// ----------------------------------------------------------------------------------------------------- results

TEST(TrackerProcess, NullResultsChangeNothingElse) {
  const TrackerPtr with = make_tracker(confirming_at(2));
  const TrackerPtr without = make_tracker(confirming_at(2));
  reference::Tracker ref(10, 2, 10, 0, 1.0f, 0.3f);
  for (int i = 0; i < 6; ++i) {
    const std::vector<float> list = harness::box_list({centred(1, static_cast<float>(2 * i), 0, 20, 20)});
    Results results(10);
    ox_tracker_process(with.get(), list.data(), results.data());
    ox_tracker_process(without.get(), list.data(), nullptr);
    ref.process(list.data(), nullptr);
    EXPECT_EQ(harness::difference(*with, ref), "");
    EXPECT_EQ(harness::difference(*without, ref), "");
  }
}

TEST(TrackerProcess, EndMarkLeavesTheRestOfItsRecord) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  const Results results = frame(tracker, {centred(1, 0, 0, 4, 4), centred(1, 50, 0, 4, 4)});
  EXPECT_EQ(results.size(), 2u);
  EXPECT_EQ(results.at(2, 0), -1.0f);
  EXPECT_TRUE(results.untouched(2 * 8 + 1));
}

TEST(TrackerProcess, FullResultsHaveNoEndMark) {
  Params p = confirming_at(1);
  p.count = 2;
  const TrackerPtr tracker = make_tracker(p);
  const Results results = frame(tracker, {centred(1, 0, 0, 4, 4), centred(1, 50, 0, 4, 4)});
  EXPECT_EQ(results.size(), 2u);
  EXPECT_TRUE(results.untouched(2 * 8));
}

// The tracks meet the detections in blocks of 256.
TEST(TrackerProcess, NearestTrackIsFoundOnBothSidesOfABlock) {
  for (const int count : {255, 256, 257, 513}) {
    SCOPED_TRACE(count);
    Params p = confirming_at(1);
    p.count = count;
    const TrackerPtr tracker = make_tracker(p);
    reference::Tracker expected(p.count, p.confirm_hits, p.max_misses, p.any_label, p.near_dist2, p.iou_threshold);
    for (int frame = 0; frame < 3; ++frame) {
      std::vector<Record> records;
      for (int i = 0; i < count; ++i) {
        const int place = frame % 2 == 0 ? i : count - 1 - i;
        records.push_back(centred(1, static_cast<float>(place * 30 + frame), 0, 20, 20));
      }
      const std::vector<float> list = harness::box_list(records);
      Results results(count), expected_results(count);
      ox_tracker_process(tracker.get(), list.data(), results.data());
      expected.process(list.data(), expected_results.data());
      EXPECT_EQ(harness::difference(*tracker, expected), "");
      EXPECT_EQ(results.size(), static_cast<std::size_t>(count));
      EXPECT_EQ(std::memcmp(results.data(), expected_results.data(), 32 * static_cast<std::size_t>(count)), 0);
    }
    EXPECT_EQ(tracker->next_id, count + 1);
  }
}

// A unit that takes subnormals as zero would find all tracks equally near, and keep the oldest.
TEST(TrackerProcess, NearestTrackIsFoundAmongSubnormalSquares) {
  for (const std::uint32_t any_label : {0u, 1u}) {
    SCOPED_TRACE(any_label);
    Params p;
    p.any_label = any_label;
    const TrackerPtr tracker = make_tracker(p);
    reference::Tracker expected(p.count, p.confirm_hits, p.max_misses, p.any_label, p.near_dist2, p.iou_threshold);
    const Record tracks[] = {centred(1, 4e-21f, 0, 0, 0), centred(1, 1e-21f, 0, 0, 0), centred(1, 8e-21f, 0, 0, 0),
                             centred(2, 0, 0, 0, 0)};
    for (const auto& list : {harness::box_list({tracks[0], tracks[1], tracks[2], tracks[3]}),
                             harness::box_list({centred(1, 0, 0, 0, 0)})}) {
      ox_tracker_process(tracker.get(), list.data(), nullptr);
      expected.process(list.data(), nullptr);
      EXPECT_EQ(harness::difference(*tracker, expected), "");
    }
    const std::vector<ox_track_t*> found = tracks_of(tracker.get());
    ASSERT_EQ(found.size(), 4u);
    EXPECT_EQ(tracker->det_match[0], found[any_label ? 3 : 1]);
  }
}

TEST(TrackerProcess, ResultsEndAtTheCapacityWhereItWasLowered) {
  Params p = confirming_at(1);
  p.count = 2;
  const TrackerPtr tracker = make_tracker(p);
  reference::Tracker expected(p.count, p.confirm_hits, p.max_misses, p.any_label, p.near_dist2, p.iou_threshold);
  const std::vector<float> two = harness::box_list({centred(1, 0, 0, 4, 4), centred(1, 50, 0, 4, 4)});
  ox_tracker_process(tracker.get(), two.data(), nullptr);
  expected.process(two.data(), nullptr);
  tracker->capacity = expected.capacity = 1;
  Results results(1), expected_results(1);
  ox_tracker_process(tracker.get(), two.data(), results.data());
  expected.process(two.data(), expected_results.data());
  EXPECT_EQ(harness::difference(*tracker, expected), "");
  EXPECT_EQ(tracker->track_count, 2);
  EXPECT_EQ(results.at(0, 0), 1.0f);
  EXPECT_EQ(std::memcmp(results.data(), expected_results.data(), 9 * sizeof(float)), 0);
  EXPECT_TRUE(results.untouched(8));
}

TEST(TrackerProcess, RecordsComeOldestFirstAndSkipTentativeAndLongUnseenTracks) {
  const TrackerPtr tracker = make_tracker(confirming_at(2));
  const Record a = centred(1, 0, 0, 4, 4);
  const Record b = centred(1, 50, 0, 4, 4);
  const Record c = centred(1, 100, 0, 4, 4);
  const Record d = centred(1, 150, 0, 4, 4);
  frame(tracker, {a, b, c});
  frame(tracker, {c, b, a});
  frame(tracker, {c, a});
  frame(tracker, {c, a});
  const Results results = frame(tracker, {d, c, a});
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results.at(0, 2), -2.0f);
  EXPECT_EQ(results.at(0, 7), 2.0f);
  EXPECT_EQ(results.at(1, 2), 98.0f);
  EXPECT_EQ(results.at(1, 7), 1.0f);
  EXPECT_EQ(tracker->track_count, 4);
}

TEST(TrackerProcess, ScoreBitsPassThroughUnchanged) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  const std::uint32_t scores[] = {0x7F812345u, 0xFF812345u, 0x7FC00001u, 0x80000000u, 0x00000001u};
  std::vector<Record> records;
  for (std::size_t i = 0; i < 5; ++i) records.push_back(centred(1, 50 * static_cast<float>(i), 0, 4, 4, scores[i]));
  std::vector<float> list = harness::box_list(records);
  std::vector<float> results(80);
  for (int round = 0; round < 2; ++round) {  // confirmed, then corrected
    ox_tracker_process(tracker.get(), list.data(), results.data());
    for (std::size_t i = 0; i < 5; ++i) {
      std::uint32_t bits;
      std::memcpy(&bits, &results[8 * i + 6], sizeof bits);
      EXPECT_EQ(bits, scores[i]);
    }
  }
}

TEST(TrackerProcess, CornersAreTheCentreAndHalfTheSize) {
  const TrackerPtr tracker = make_tracker(confirming_at(1));
  const Results results = frame(tracker, {Record{1, 0.1f, 0.7f, 16777216.0f, 3.3f, 0}});
  const ox_track_t& t = *only_track(tracker);
  EXPECT_EQ(results.at(0, 2), t.cx - t.w * 0.5f);
  EXPECT_EQ(results.at(0, 3), t.cy - t.h * 0.5f);
  EXPECT_EQ(results.at(0, 4), t.cx + t.w * 0.5f);
  EXPECT_EQ(results.at(0, 5), t.cy + t.h * 0.5f);
  EXPECT_EQ(results.at(0, 2), 0.0f);  // the corner given was lost in the rounding of the sum
}

TEST(TrackerProcess, ResultsMayShareTheStorageOfTheBoxes) {
  const TrackerPtr shared = make_tracker(confirming_at(1));
  const TrackerPtr apart = make_tracker(confirming_at(1));
  for (int i = 0; i < 4; ++i) {
    const auto shift = static_cast<float>(i);
    const std::vector<Record> records = {centred(1, shift, 0, 4, 4, 7), centred(1, 50 - shift, 0, 4, 4, 8),
                                         centred(2, 100, shift, 4, 4, 9)};
    std::vector<float> storage = harness::box_list(records);
    storage.resize(80, 5.0f);
    const Results results = frame(apart, records);
    ox_tracker_process(shared.get(), storage.data(), storage.data());
    ASSERT_EQ(results.size(), 3u);
    for (std::size_t field = 0; field < 24; ++field)
      EXPECT_EQ(bits_of(storage[field]), bits_of(results.at(field / 8, field % 8))) << field;
    EXPECT_EQ(storage[24], -1.0f);
    EXPECT_EQ(storage[79], 5.0f);
  }
}

TEST(TrackerProcess, NoCapacityWritesNothingAndKeepsTheRecord) {
  for (const std::int32_t count : {0, -1, kInt32Min}) {
    Params p = confirming_at(1);
    p.count = count;
    const TrackerPtr tracker = make_tracker(p);
    float results[9];
    for (float& value : results) value = 7.0f;
    const std::vector<float> list = harness::box_list({centred(1, 0, 0, 4, 4)});
    for (int i = 0; i < 3; ++i) ox_tracker_process(tracker.get(), list.data(), results);
    for (const float value : results) EXPECT_EQ(value, 7.0f);
    EXPECT_EQ(tracker->track_count, 0);
    EXPECT_EQ(tracker->det_count, 0);
  }
}

// Walked with plain pointers, as a caller does: the head is compared before it would be read as a track.
TEST(TrackerProcess, RingIsWalkedFromTheRecordInBothDirections) {
  const TrackerPtr tracker = make_tracker({});
  frame(tracker, {centred(1, 0, 0, 4, 4), centred(1, 50, 0, 4, 4), centred(1, 100, 0, 4, 4)});
  std::vector<float> forward;
  for (ox_track_t* t = tracker->next; static_cast<void*>(t) != static_cast<void*>(tracker.get()); t = t->next)
    forward.push_back(t->cx);
  std::vector<float> backward;
  for (ox_track_t* t = tracker->prev; static_cast<void*>(t) != static_cast<void*>(tracker.get()); t = t->prev)
    backward.push_back(t->cx);
  EXPECT_EQ(forward, (std::vector<float>{0, 50, 100}));
  EXPECT_EQ(backward, (std::vector<float>{100, 50, 0}));
}

TEST(TrackerProcess, TrackersDoNotShareAnything) {
  const TrackerPtr one = make_tracker(confirming_at(1));
  const TrackerPtr other = make_tracker(confirming_at(1));
  frame(one, {centred(1, 0, 0, 4, 4), centred(1, 50, 0, 4, 4)});
  frame(other, {centred(1, 0, 0, 4, 4)});
  EXPECT_EQ(one->next_id, 3);
  EXPECT_EQ(other->next_id, 2);
  EXPECT_EQ(only_track(other)->id, 1);
  EXPECT_NE(one->transition_matrix, other->transition_matrix);
}

}  // namespace
