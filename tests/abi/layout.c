/* SPDX-License-Identifier: MIT */
/* Size, order and place of every field, checked by the compiler of the machine at hand. */
#include <stddef.h>

#include "ox.h"

#define WORD32 (sizeof(void *) == 4)
#define JOIN2(a, b) a##b
#define JOIN(a, b) JOIN2(a, b)
#define CHECK(condition) typedef char JOIN(check_, __LINE__)[(condition) ? 1 : -1]
/* offset with pointers of 4 bytes, offset with pointers of 8 bytes */
#define FIELD(record, field, at32, at64) CHECK(offsetof(record, field) == (WORD32 ? (at32) : (at64)))
#define SIZE(record, size32, size64) CHECK(sizeof(record) == (WORD32 ? (size32) : (size64)))

SIZE(ox_mat_t, 20, 24);
FIELD(ox_mat_t, type, 0, 0);
FIELD(ox_mat_t, rows, 4, 4);
FIELD(ox_mat_t, cols, 8, 8);
FIELD(ox_mat_t, step, 12, 12);
FIELD(ox_mat_t, data, 16, 16);

SIZE(ox_kalman_t, 68, 128);
FIELD(ox_kalman_t, state_dim, 0, 0);
FIELD(ox_kalman_t, meas_dim, 4, 4);
FIELD(ox_kalman_t, state_pre, 8, 8);
FIELD(ox_kalman_t, state_post, 12, 16);
FIELD(ox_kalman_t, error_cov_pre, 16, 24);
FIELD(ox_kalman_t, error_cov_post, 20, 32);
FIELD(ox_kalman_t, gain, 24, 40);
FIELD(ox_kalman_t, temp1, 28, 48);
FIELD(ox_kalman_t, temp2, 32, 56);
FIELD(ox_kalman_t, temp3, 36, 64);
FIELD(ox_kalman_t, temp4, 40, 72);
FIELD(ox_kalman_t, temp5, 44, 80);
FIELD(ox_kalman_t, transition_matrix, 48, 88);
FIELD(ox_kalman_t, measurement_matrix, 52, 96);
FIELD(ox_kalman_t, process_noise_cov, 56, 104);
FIELD(ox_kalman_t, measurement_noise_cov, 60, 112);
FIELD(ox_kalman_t, storage, 64, 120);

SIZE(ox_tracker_detection_t, 24, 24);
FIELD(ox_tracker_detection_t, label, 0, 0);
FIELD(ox_tracker_detection_t, cx, 4, 4);
FIELD(ox_tracker_detection_t, cy, 8, 8);
FIELD(ox_tracker_detection_t, w, 12, 12);
FIELD(ox_tracker_detection_t, h, 16, 16);
FIELD(ox_tracker_detection_t, score, 20, 20);

SIZE(ox_track_t, 88, 112);
FIELD(ox_track_t, next, 0, 0);
FIELD(ox_track_t, prev, 4, 8);
FIELD(ox_track_t, id, 8, 16);
FIELD(ox_track_t, label, 12, 20);
FIELD(ox_track_t, cx, 16, 24);
FIELD(ox_track_t, cy, 20, 28);
FIELD(ox_track_t, w, 24, 32);
FIELD(ox_track_t, h, 28, 36);
FIELD(ox_track_t, score, 32, 40);
FIELD(ox_track_t, prev_cx, 36, 44);
FIELD(ox_track_t, prev_cy, 40, 48);
FIELD(ox_track_t, prev_w, 44, 52);
FIELD(ox_track_t, prev_h, 48, 56);
FIELD(ox_track_t, kf, 52, 64);
FIELD(ox_track_t, meas, 56, 72);
FIELD(ox_track_t, pred_cx, 60, 80);
FIELD(ox_track_t, pred_cy, 64, 84);
FIELD(ox_track_t, pred_w, 68, 88);
FIELD(ox_track_t, pred_h, 72, 92);
FIELD(ox_track_t, det_index, 76, 96);
FIELD(ox_track_t, misses, 80, 100);
FIELD(ox_track_t, hits, 84, 104);

SIZE(ox_tracker_t, 80, 120);
FIELD(ox_tracker_t, next, 0, 0);
FIELD(ox_tracker_t, prev, 4, 8);
FIELD(ox_tracker_t, track_count, 8, 16);
FIELD(ox_tracker_t, next_id, 12, 20);
FIELD(ox_tracker_t, capacity, 16, 24);
FIELD(ox_tracker_t, det_count, 20, 28);
FIELD(ox_tracker_t, aux0, 24, 32);
FIELD(ox_tracker_t, aux1, 28, 36);
FIELD(ox_tracker_t, near_dist2, 32, 40);
FIELD(ox_tracker_t, iou_threshold, 36, 44);
FIELD(ox_tracker_t, confirm_hits, 40, 48);
FIELD(ox_tracker_t, max_misses, 44, 52);
FIELD(ox_tracker_t, any_label, 48, 56);
FIELD(ox_tracker_t, transition_matrix, 52, 64);
FIELD(ox_tracker_t, measurement_matrix, 56, 72);
FIELD(ox_tracker_t, process_noise_cov, 60, 80);
FIELD(ox_tracker_t, measurement_noise_cov, 64, 88);
FIELD(ox_tracker_t, detections, 68, 96);
FIELD(ox_tracker_t, det_match, 72, 104);
FIELD(ox_tracker_t, det_dist2, 76, 112);
