// SPDX-License-Identifier: MIT
// profile product N | add N | filter: the calls that profile.sh counts, a thousand times within `repeat`.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ox.h"

static ox_mat_t *a, *b, *dst, *measurement;
static ox_kalman_t* filter;

static void multiply(void) { ox_mat_mul(a, b, dst, 0); }
static void add(void) { ox_mat_add(a, b, dst); }
static void cycle(void) {
  ox_kalman_predict(filter);
  ox_kalman_correct(filter, measurement);
}

__attribute__((noinline)) static void repeat(void (*call)(void)) {
  for (int i = 0; i < 1000; ++i) call();
}

int main(int argc, char** argv) {
  void (*call)(void) = NULL;
  const int is_product = argc == 3 && strcmp(argv[1], "product") == 0;
  if (is_product || (argc == 3 && strcmp(argv[1], "add") == 0)) {
    const int n = atoi(argv[2]);
    const uint32_t type = is_product ? OX_F32 : OX_S16;
    call = is_product ? multiply : add;
    a = ox_mat_create(n, n, type);
    b = ox_mat_create(n, n, type);
    dst = ox_mat_create(n, n, type);
    if (!a || !b || !dst) return 1;
    ox_mat_setone(a);
    ox_mat_setone(b);
  } else if (argc == 2 && strcmp(argv[1], "filter") == 0) {
    call = cycle;
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
    fprintf(stderr, "usage: profile product N | add N | filter\n");
    return 2;
  }
  repeat(call);
  return 0;
}
