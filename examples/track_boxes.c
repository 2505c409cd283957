/* SPDX-License-Identifier: MIT */
/* Tracks two boxes that move towards each other and pass, prints the tracks of each frame, and frees everything. */
#include <ox.h>
#include <stdio.h>
#include <stdlib.h>

enum { CAPACITY = 8, FRAMES = 12, PERSON = 1, CAR = 2 };

/* The records of ox_tracker_process. */
typedef struct { float label, x1, y1, x2, y2, score; } box;
typedef struct { float id, label, x1, y1, x2, y2, score, detection; } report;

static box box_at(float label, float x, float y, float width, float height, float score) {
  box b;
  b.label = label;
  b.x1 = x;
  b.y1 = y;
  b.x2 = x + width;
  b.y2 = y + height;
  b.score = score;
  return b;
}

/* What a detector would have found. The list ends with a label of 0 and needs room for that mark. */
static void detect(int frame, box boxes[CAPACITY + 1]) {
  const float step = (float)frame;
  int count = 0;
  boxes[count++] = box_at(PERSON, 20.0f + 2.0f * step, 40.0f, 12.0f, 30.0f, 0.9f);
  if (frame != 6) boxes[count++] = box_at(CAR, 60.0f - 3.0f * step, 45.0f, 40.0f, 20.0f, 0.8f); /* missed once */
  boxes[count] = box_at(0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f);
}

/*
 * ox_tracker_release frees the tracker's record and arrays. The tracks still alive, each one's filter and measurement,
 * and the four matrices of the model are the caller's; the model must outlive the filters that use it.
 */
static void release_all(ox_tracker_t *tracker) {
  ox_track_t *track = tracker->next;
  while ((void *)track != (void *)tracker) { /* the ring ends at the tracker itself, which is no track */
    ox_track_t *next = track->next;
    ox_kalman_release(track->kf); /* null while the track is tentative: nothing happens */
    ox_mat_release(track->meas);
    free(track);
    track = next;
  }
  ox_mat_release(tracker->transition_matrix);
  ox_mat_release(tracker->measurement_matrix);
  ox_mat_release(tracker->process_noise_cov);
  ox_mat_release(tracker->measurement_noise_cov);
  ox_tracker_release(tracker);
}

int main(void) {
  box boxes[CAPACITY + 1];
  report reports[CAPACITY];
  int frame, i;

  /* A track is reported from its 3rd match on and deleted at its 6th miss in a row. */
  ox_tracker_t *tracker = ox_tracker_create(0, 0, CAPACITY, 3, 5, 0, 1.0f, 0.1f);
  if (!tracker) {
    fprintf(stderr, "not enough memory\n");
    return 1;
  }
  for (frame = 0; frame < FRAMES; ++frame) {
    detect(frame, boxes);
    ox_tracker_process(tracker, (const float *)boxes, (float *)reports);
    printf("frame %2d:", frame);
    for (i = 0; i < CAPACITY && reports[i].id >= 0.0f; ++i) /* an identity of -1 ends a list that is not full */
      printf("   %s %.0f at %5.1f %5.1f%s", reports[i].label == (float)PERSON ? "person" : "car", reports[i].id,
             reports[i].x1, reports[i].y1, reports[i].detection < 0.0f ? " (not seen)" : "");
    printf("\n");
  }
  release_all(tracker);
  return 0;
}
