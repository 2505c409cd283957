/* SPDX-License-Identifier: MIT */
/* One fixed pseudo-random programme of calls through everything. Prints a digest of all that came out: the same on
 * every machine, with every compiler, at every level of optimisation. */
#include <float.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ox.h"

static uint64_t digest = 0xcbf29ce484222325u; /* FNV-1a, 64 bits */

static void take_bytes(const void *data, size_t size)
{
    const unsigned char *p = (const unsigned char *)data;
    for (size_t i = 0; i < size; ++i) digest = (digest ^ p[i]) * 0x100000001b3u;
}

static void take_u32(uint32_t value)
{
    const unsigned char bytes[4] = {(unsigned char)value, (unsigned char)(value >> 8), (unsigned char)(value >> 16),
                                    (unsigned char)(value >> 24)};
    take_bytes(bytes, sizeof bytes);
}

/* Arithmetic's NaNs count as one value. */
static void take_float(float value)
{
    uint32_t bits;
    memcpy(&bits, &value, sizeof bits);
    take_u32(value != value ? 0x7fc00000u : bits);
}

static void take_double(double value)
{
    uint64_t bits;
    memcpy(&bits, &value, sizeof bits);
    if (value != value) bits = 0x7ff8000000000000u;
    take_u32((uint32_t)bits);
    take_u32((uint32_t)(bits >> 32));
}

static uint64_t state = 88172645463325252u; /* xorshift64, G. Marsaglia, "Xorshift RNGs", 2003 */

static uint32_t random_u32(void)
{
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return (uint32_t)(state >> 32);
}

static uint32_t below(uint32_t n) { return random_u32() % n; }

static float random_float(void)
{
    static const float odd[] = {0.0f, -0.0f, 1.0f, -1.0f, 1e-38f, -1e-40f, 1e38f, -3e38f, 1e-20f, 1.5e-19f};
    if (below(8) == 0) return odd[below(sizeof odd / sizeof *odd)];
    return (float)((int32_t)random_u32()) * 0x1p-28f;
}

static uint32_t scalar_size(uint32_t type) { return (0x88442211u >> ((type & 7u) * 4)) & 15u; }

static ox_mat_t *random_matrix(int32_t rows, int32_t cols, uint32_t type)
{
    ox_mat_t *m = ox_mat_create(rows, cols, type);
    const uint32_t channels = ((type >> 3) & 31u) + 1;
    const size_t count = (size_t)rows * (size_t)cols * channels, size = scalar_size(type);
    unsigned char *p;
    if (!m) exit(3);
    p = (unsigned char *)m->data;
    for (size_t i = 0; i < count; ++i, p += size) {
        const float f = random_float();
        const double d = (double)f * (double)random_float();
        const uint64_t high = random_u32(), bits = high << 32 | random_u32();
        if ((type & 7u) == OX_F32)
            memcpy(p, &f, sizeof f);
        else if ((type & 7u) == OX_F64)
            memcpy(p, &d, sizeof d);
        else
            for (size_t b = 0; b < size; ++b) p[b] = (unsigned char)(bits >> (8 * b));
    }
    return m;
}

static void take_matrix(const ox_mat_t *m)
{
    const uint32_t depth = m->type & 7u;
    const size_t count = (size_t)m->rows * (size_t)m->cols * (((m->type >> 3) & 31u) + 1), size = scalar_size(m->type);
    const unsigned char *p = (const unsigned char *)m->data;
    for (size_t i = 0; i < count; ++i, p += size) {
        float f;
        double d;
        if (depth == OX_F32)
            memcpy(&f, p, sizeof f), take_float(f);
        else if (depth == OX_F64)
            memcpy(&d, p, sizeof d), take_double(d);
        else
            take_bytes(p, size); /* every supported machine is little-endian */
    }
}

static void elementwise(void)
{
    const uint32_t depth = below(8), type = OX_TYPE(depth, 1 + below(5));
    const int32_t rows = 1 + (int32_t)below(9), cols = 1 + (int32_t)below(40);
    ox_mat_t *a = random_matrix(rows, cols, type), *b = random_matrix(rows, cols, type);
    ox_mat_t *c = random_matrix(rows, cols, type), *t = random_matrix(cols, rows, type);
    ox_mat_add(a, b, c), take_matrix(c);
    ox_mat_sub(a, b, c), take_matrix(c);
    ox_mat_scale(b->data, a, c), take_matrix(c);
    ox_mat_neg(a, c), take_matrix(c);
    ox_mat_transpose(a, t), take_matrix(t);
    ox_mat_setidentity(a), take_matrix(a);
    ox_mat_setdiagonal(t->data, b), take_matrix(b);
    ox_mat_setone(c), take_matrix(c);
    ox_mat_setzero(c), take_matrix(c);
    ox_mat_release(a), ox_mat_release(b), ox_mat_release(c), ox_mat_release(t);
}

static void products(uint32_t largest)
{
    const uint32_t type = below(8);
    const int32_t m = 1 + (int32_t)below(largest), n = 1 + (int32_t)below(largest), k = 1 + (int32_t)below(largest);
    ox_mat_t *a = random_matrix(m, k, type), *at = random_matrix(k, m, type), *b = random_matrix(k, n, type);
    ox_mat_t *bt = random_matrix(n, k, type), *c = random_matrix(m, n, type), *d = random_matrix(m, n, type);
    ox_mat_mul(a, b, d, 0), take_matrix(d);
    ox_mat_mul(at, b, d, OX_MAT_TRANSPOSE_A), take_matrix(d);
    ox_mat_mul(a, bt, d, OX_MAT_TRANSPOSE_B), take_matrix(d);
    ox_mat_muladd(a, b, c, d, 0), take_matrix(d);
    ox_mat_muladd(a, bt, c, c, OX_MAT_TRANSPOSE_B), take_matrix(c);
    ox_mat_submul(d, a, b, d, 0), take_matrix(d);
    ox_mat_submul(NULL, a, b, d, OX_MAT_IDENTITY_C), take_matrix(d);
    ox_mat_release(a), ox_mat_release(at), ox_mat_release(b), ox_mat_release(bt), ox_mat_release(c), ox_mat_release(d);
}

static void inverse(void)
{
    const int32_t n = 1 + (int32_t)below(40);
    ox_mat_t *a = random_matrix(n, n, OX_F32), *b = random_matrix(n, n, OX_F32);
    if (below(2)) ((float *)a->data)[0] = 0.0f;
    take_u32((uint32_t)ox_mat_inv(a, b)), take_matrix(b);
    ox_mat_release(a), ox_mat_release(b);
}

static void fixed3(void)
{
    float a[9], b[9], c[9], v[3];
    for (int i = 0; i < 9; ++i) a[i] = random_float(), b[i] = random_float();
    _matmult_3x3(a, b, c);
    for (int i = 0; i < 9; ++i) take_float(c[i]);
    _matmult_3x3t(a, b, c);
    for (int i = 0; i < 9; ++i) take_float(c[i]);
    _vecoutp_3(a, b, c);
    for (int i = 0; i < 9; ++i) take_float(c[i]);
    _matmult_3x3vec(a, b, v), take_float(v[0]), take_float(v[1]), take_float(v[2]);
    _matmult_3x3tvec(a, b, v), take_float(v[0]), take_float(v[1]), take_float(v[2]);
    _veccrossp_3(a, b, v), take_float(v[0]), take_float(v[1]), take_float(v[2]);
    take_float(_matdet_3x3(a)), take_float(_vecdotp_3(a, b));
    _matneg_3x3(a), take_float(a[below(9)]);
}

static void tracker(int frames)
{
    enum { kObjects = 24, kCapacity = 32 };
    static float boxes[kCapacity + 1][6], out[kCapacity][8];
    float x[kObjects], y[kObjects], vx[kObjects], vy[kObjects];
    ox_tracker_t *t = ox_tracker_create(0, 0, kCapacity, 3, 8, below(2), 0.5f, 0.2f);
    if (!t) exit(3);
    for (int i = 0; i < kObjects; ++i) {
        x[i] = (float)below(200), y[i] = (float)below(200);
        vx[i] = (float)below(9) - 4.0f, vy[i] = (float)below(9) - 4.0f;
    }
    for (int f = 0; f < frames; ++f) {
        int count = 0;
        for (int i = 0; i < kObjects; ++i) {
            const float jitter = (float)below(256) * 0x1p-8f;
            x[i] += vx[i], y[i] += vy[i];
            if (x[i] < 0 || x[i] > 200) vx[i] = -vx[i];
            if (y[i] < 0 || y[i] > 200) vy[i] = -vy[i];
            if (below(10) == 0) continue;
            boxes[count][0] = (float)(1 + i % 3);
            boxes[count][1] = x[i] + jitter, boxes[count][2] = y[i] - jitter;
            boxes[count][3] = x[i] + 12.0f, boxes[count][4] = y[i] + 20.0f + jitter;
            boxes[count][5] = jitter;
            ++count;
        }
        boxes[count][0] = 0.0f;
        memset(out, 0, sizeof out);
        if (f % 50 == 49) {
            const int32_t confirm_hits = 1 + (int32_t)below(4), max_misses = (int32_t)below(9);
            ox_tracker_set_params(t, confirm_hits, max_misses, below(2), 0.25f, 0.1f);
        }
        ox_tracker_process(t, boxes[0], out[0]);
        for (int i = 0; i < kCapacity; ++i)
            for (int j = 0; j < 8; ++j) take_float(out[i][j]);
    }
    for (ox_track_t *track = t->next, *next; (void *)track != (void *)t; track = next) {
        next = track->next;
        if (track->kf) take_matrix(track->kf->error_cov_post), ox_kalman_release(track->kf), ox_mat_release(track->meas);
        free(track);
    }
    ox_mat_release(t->transition_matrix), ox_mat_release(t->measurement_matrix);
    ox_mat_release(t->process_noise_cov), ox_mat_release(t->measurement_noise_cov);
    ox_tracker_release(t);
}

int main(void)
{
    for (int i = 0; i < 300; ++i) elementwise();
    for (int i = 0; i < 400; ++i) products(i % 10 ? 20 : 150);
    for (int i = 0; i < 60; ++i) inverse();
    for (int i = 0; i < 500; ++i) fixed3();
    for (int i = 0; i < 4; ++i) tracker(300);
    printf("%08x%08x\n", (unsigned)(digest >> 32), (unsigned)digest);
    return 0;
}
