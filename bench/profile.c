// SPDX-License-Identifier: MIT
// profile product N | filter: the calls that profile.sh counts, a thousand times within `repeat`.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ox.h"

static ox_mat_t *a, *b, *dst, *measurement;
static ox_kalman_t* filter;

__attribute__((noinline)) static void repeat(void) {
  for (int i = 0; i < 1000; ++i) {
    if (filter) {
      ox_kalman_predict(filter);
      ox_kalman_correct(filter, measurement);
    } else {
      ox_mat_mul(a, b, dst, 0);
    }
  }
}

int main(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "product") == 0) {
    const int n = atoi(argv[2]);
    a = ox_mat_create(n, n, OX_F32);
    b = ox_mat_create(n, n, OX_F32);
    dst = ox_mat_create(n, n, OX_F32);
    if (!a || !b || !dst) return 1;
    ox_mat_setone(a);
    ox_mat_setone(b);
  } else if (argc == 2 && strcmp(argv[1], "filter") == 0) {
    filter = ox_kalman_create(8, 4, 0, NULL, NULL, NULL, NULL);
    measurement = ox_mat_create(4, 1, OX_F32);
    if (!filter || !measurement) return 1;
    ox_mat_setidentity(filter->transition_matrix);
    ox_mat_setidentity(filter->measurement_matrix);
    ox_mat_setidentity(filter->process_noise_cov);
    ox_mat_setidentity(filter->measurement_noise_cov);
    ox_mat_setidentity(filter->error_cov_post);
    ox_mat_setone(measurement);
  } else {
    fprintf(stderr, "usage: profile product N | filter\n");
    return 2;
  }
  repeat();
  return 0;
}
