/* SPDX-License-Identifier: MIT */
/**
 * ox: dense matrices, a linear Kalman filter and a multi-object box tracker.
 *
 * One header for C99 and C++17. The library needs the C library and nothing else.
 *
 * Failure    There are no error codes and no messages: a call whose operands do not fit returns
 *            without writing. "Refused" below lists the reasons in the order of the checks. A null
 *            pointer is outside the contract unless the text says otherwise.
 * Numbers    Every result is the same to the last bit on ARMv7, AArch64, x86-64 and i686: one rounding
 *            per operation, never a fused multiply-add, integers wrap. All NaNs that arithmetic
 *            produces count as one value; NaNs that are moved or sign-flipped keep their bits.
 *            The rounding mode is to nearest and subnormals are honoured, as the C library starts.
 * Alignment  Elements of 1, 2 and 4 bytes lie at multiples of their size, elements of 8 bytes at
 *            multiples of 4. More is never assumed.
 * Threads    Calls on distinct objects may run at once, with one exception: ox_mat_inv, and so
 *            ox_kalman_correct and ox_tracker_process, share one static work area and must never run in
 *            two threads at the same time.
 */
#ifndef OX_H
#define OX_H

#include <stdint.h>

#define OX_VERSION_MAJOR 0
#define OX_VERSION_MINOR 1
#define OX_VERSION_PATCH 0

#if defined(__GNUC__)
#define OX_API __attribute__((visibility("default")))
#else
#define OX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------
 * Matrices
 * --------------------------------------------------------------------------------------------- */

/** Depths: the scalar type of a matrix, bits 0 to 2 of its type word. */
#define OX_U8 0u  /**< unsigned 8-bit integer */
#define OX_S8 1u  /**< signed 8-bit integer */
#define OX_U16 2u /**< unsigned 16-bit integer */
#define OX_S16 3u /**< signed 16-bit integer */
#define OX_S32 4u /**< signed 32-bit integer */
#define OX_F32 5u /**< IEEE 754 single */
#define OX_S64 6u /**< signed 64-bit integer */
#define OX_F64 7u /**< IEEE 754 double */

/** Type word of a depth with 1 to 32 interleaved channels; bits 3 to 7 hold the channels less one. */
#define OX_TYPE(depth, channels) ((uint32_t)(depth) + (((uint32_t)(channels)-1u) << 3))

/** Flags of the products. Each product looks at its own bits only and ignores all others. */
#define OX_MAT_TRANSPOSE_A 1u  /**< ox_mat_mul: a is taken transposed */
#define OX_MAT_TRANSPOSE_B 2u  /**< ox_mat_mul, ox_mat_muladd: b is taken transposed */
#define OX_MAT_IDENTITY_C 16u  /**< ox_mat_submul: the minuend is the identity */

/**
 * Header of a row-major matrix. The scalar of row r, column c, channel k stands at byte
 * data + r * step + (c * channels + k) * scalar size. A matrix is packed when step equals
 * cols * channels * scalar size; every header that the library lays is. Only ox_mat_setzero and
 * ox_mat_print read step: all other routines take the rows as packed, whatever it says.
 */
typedef struct ox_mat_t {
  uint32_t type; /**< depth, channels less one, and 24 bits that are carried but not interpreted */
  int32_t rows;  /**< number of rows */
  int32_t cols;  /**< number of elements in a row */
  int32_t step;  /**< bytes from one row to the next */
  void *data;    /**< first scalar */
} ox_mat_t;

/**
 * Lays a packed header over memory of the caller, who keeps both.
 *
 * Result    hdr. The fields are stored as given, sizes of zero or below and a null data included;
 *           step = cols * channels * scalar size, modulo 2^32.
 * Refused   hdr null: null is returned.
 */
OX_API ox_mat_t *ox_mat_initheader(ox_mat_t *hdr, int32_t rows, int32_t cols, uint32_t type, void *data);

/**
 * Makes a packed matrix, header and elements in one block from malloc.
 *
 * Result    the header, data directly behind it; null when the allocation fails. The elements are
 *           not cleared.
 * Sizes     not checked. The block has sizeof(ox_mat_t) + rows * cols * channels * scalar size bytes,
 *           taken modulo 2^32, and never fewer than the header: a caller keeps the true size below 4 GiB.
 */
OX_API ox_mat_t *ox_mat_create(int32_t rows, int32_t cols, uint32_t type);

/**
 * Frees a matrix that ox_mat_create made.
 *
 * Ownership is told by one test: data stands directly behind the header. A header over other memory, and
 * null, is left alone. So a caller's own header with its elements directly behind it must come from
 * malloc, and the matrices inside an ox_kalman_t must never be passed here.
 */
OX_API void ox_mat_release(ox_mat_t *m);

/**
 * Writes a matrix to standard output: "NAME=" and a line end (nothing when name is null), then one line a row.
 *
 * Each row shows its first cols scalars, counted over the channels: of a matrix with several channels only
 * the first elements are seen. Formats, none followed by a separator:
 *   OX_U8 " %3d"   OX_S8 " %c"   OX_U16, OX_S16 " %6d"   OX_S32 " %11d"   OX_S64 " %11lld"
 *   OX_F32, OX_F64 " %10f"
 * OX_U16 is shown as a signed 16-bit number. Rows are step / scalar size scalars apart.
 *
 * Empty     without rows the heading alone; a row without columns is an empty line.
 */
OX_API void ox_mat_print(const char *name, const ox_mat_t *m);

/**
 * Clears rows * step bytes from data: every channel, and what lies between padded rows.
 *
 * Sizes     the product is taken modulo 2^32; when one of the two is zero, or one is negative and the
 *           other is not, nothing is written.
 */
OX_API void ox_mat_setzero(ox_mat_t *m);

/**
 * Sets every scalar to one in its own type, all channels.
 *
 * Sizes     rows * cols * channels scalars, the count taken modulo 2^32 as a signed number; nothing
 *           is written when it is zero or below.
 */
OX_API void ox_mat_setone(ox_mat_t *m);

/**
 * Writes the identity into channel 0: one at (i, i), zero elsewhere; other channels keep their contents.
 *
 * Shapes    any with at least one row and one column, square or not.
 * Empty     do not pass an empty matrix: the first diagonal value is written before the sizes are looked
 *           at, and with no rows also the cols zeros behind it.
 */
OX_API void ox_mat_setidentity(ox_mat_t *m);

/**
 * Writes a diagonal into channel 0: values[i] at (i, i), zero elsewhere; other channels keep their contents.
 *
 * values    min(rows, cols) scalars of the matrix's own depth, copied bit for bit; aligned like elements.
 * Empty     as for ox_mat_setidentity, and values[0] is read.
 */
OX_API void ox_mat_setdiagonal(const void *values, ox_mat_t *m);

/**
 * dst = -src, scalar by scalar, all channels.
 *
 * Numbers   two's complement, the most negative value stays itself; floats flip their sign bit, NaNs too.
 * Aliasing  dst may be src. Any other overlap gives what the plain loop in rising index order gives.
 * Refused   type words, rows or cols differ; OX_U8 and OX_U16, which have no negation; a scalar count
 *           (rows * cols * channels modulo 2^32, signed) of zero or below.
 */
OX_API void ox_mat_neg(const ox_mat_t *src, ox_mat_t *dst);

/**
 * dst = *factor * src, scalar by scalar, all channels.
 *
 * factor    one scalar of the matrices' own depth, aligned like an element; read once, before the loop.
 * Numbers   integers keep the low bits of the product; floats are rounded once in their own type.
 * Aliasing  dst may be src. Any other overlap gives what the plain loop in rising index order gives.
 * Refused   type words, rows or cols differ; a scalar count of zero or below.
 */
OX_API void ox_mat_scale(const void *factor, const ox_mat_t *src, ox_mat_t *dst);

/**
 * dst = a + b, scalar by scalar, all channels.
 *
 * Numbers   in the element type; integers wrap, nothing saturates.
 * Aliasing  any of the three may be one matrix. Any other overlap gives what the plain loop in rising
 *           index order gives.
 * Refused   type, rows or cols of a and b differ, then of dst and a; a scalar count of zero or below.
 */
OX_API void ox_mat_add(const ox_mat_t *a, const ox_mat_t *b, ox_mat_t *dst);

/** dst = a - b, scalar by scalar. Everything else as for ox_mat_add. */
OX_API void ox_mat_sub(const ox_mat_t *a, const ox_mat_t *b, ox_mat_t *dst);

/**
 * dst = src transposed. Whole elements move, their channels stay together and keep their bits.
 *
 * Shapes    src [m x n], dst [n x m].
 * Aliasing  not meant to work in place: the elements are copied one by one, src row after row, so a square
 *           matrix on itself becomes its upper triangle mirrored. Any overlap gives what that loop gives.
 * Refused   type words differ, src rows and dst cols differ, src cols and dst rows differ; rows or cols below 1.
 */
OX_API void ox_mat_transpose(const ox_mat_t *src, ox_mat_t *dst);

/**
 * dst = a * b, or with one factor transposed.
 *
 * Shapes    flags 0: a [m x k], b [k x n].  OX_MAT_TRANSPOSE_A: a [k x m].
 *           OX_MAT_TRANSPOSE_B: b [n x k]; ignored when A is set.  dst [m x n].
 * Layout    rows are taken as packed; step is not read.
 * Numbers   in the element type: integers wrap, f32 stays f32. Each product is rounded, then added; terms are
 *           added in rising k in all three forms. The first product is stored as it is.
 *           k of zero or below: zeros are written and neither factor is read.
 * Aliasing  a and b may be one matrix; dst must not share storage with either.
 * Refused   a has several channels; type words differ; shapes do not fit; m or n of zero or below.
 * Cost      m * n * k steps, no allocation; threads may call it at once on different dst.
 */
OX_API void ox_mat_mul(const ox_mat_t *a, const ox_mat_t *b, ox_mat_t *dst, uint32_t flags);

/**
 * dst = a * b + c, or a * b^T + c.
 *
 * Shapes    flags 0: a [m x k], b [k x n].  OX_MAT_TRANSPOSE_B: b [n x k].  c, dst [m x n].
 *           There is no form with a transposed.
 * Layout    rows are taken as packed; step is not read.
 * Numbers   ((c + a0*b0) + a1*b1) + ... in the element type, in rising k in both forms, each product
 *           rounded before it is added. k of zero or below: dst = c.
 * Aliasing  dst may be c, and a and b may be one matrix; dst must not share storage with a or b.
 * Refused   a has several channels; type words differ; shapes do not fit; m or n of zero or below.
 * Cost      m * n * k steps, no allocation; threads may call it at once on different dst.
 */
OX_API void ox_mat_muladd(const ox_mat_t *a, const ox_mat_t *b, const ox_mat_t *c, ox_mat_t *dst, uint32_t flags);

/**
 * dst = c - a * b, or I - a * b.
 *
 * Shapes    a [m x k], b [k x n], dst [m x n], c [m x n]. With OX_MAT_IDENTITY_C the minuend is the identity
 *           and c may be null or of any shape; when it is not null its type must still fit.
 * Layout    rows are taken as packed; step is not read.
 * Numbers   ((c - a0*b0) - a1*b1) - ... in the element type, in rising k, each product rounded before it is
 *           subtracted. k of zero or below: dst is the minuend.
 * Aliasing  dst may be c, and a and b may be one matrix; dst must not share storage with a or b.
 * Refused   a has several channels; type of c (when not null), b or dst differs; shapes do not fit;
 *           m or n of zero or below.
 * Empty     with OX_MAT_IDENTITY_C an empty dst is still handed to ox_mat_setidentity, which writes at its data.
 * Cost      m * n * k steps, no allocation; threads may call it at once on different dst.
 */
OX_API void ox_mat_submul(const ox_mat_t *c, const ox_mat_t *a, const ox_mat_t *b, ox_mat_t *dst, uint32_t flags);

/**
 * dst = inverse of src, by Gauss-Jordan elimination.
 *
 * Shapes    n x n with n = src rows, at most 40, type OX_F32 with one channel. n floats a row are read and
 *           written; cols are compared with each other only, so that a square shape is the caller's duty.
 * Numbers   stored in single, computed in double precision. Rows are exchanged only where a pivot is exactly
 *           zero, never for size. A singular matrix is not reported: infinities and NaNs come out, and where the
 *           last pivot is zero the result depends on what earlier calls left in the work area.
 * Aliasing  dst may be src, or overlap it: src is copied first and dst written last.
 * Result    0, also for n of zero or below, where nothing is written; -1 when refused.
 * Refused   type words differ; rows differ; type is not OX_F32 with one channel or cols differ; n above 40.
 * Threads   NOT reentrant: one static work area of 13,120 bytes serves all callers.
 */
OX_API int32_t ox_mat_inv(const ox_mat_t *src, ox_mat_t *dst);

/* ------------------------------------------------------------------------------------------------
 * 3 x 3 matrices (nine floats, row-major) and 3-vectors on bare arrays
 *
 * Numbers   products: terms in double precision, (t0 + t1) + t2, rounded once to float; cross product: the
 *           difference of two terms in double precision, rounded once.
 *           Outer product and determinant: single precision throughout.
 * Aliasing  an output must not share storage with an input; inputs may be one array.
 * --------------------------------------------------------------------------------------------- */

/** C = A * B */
OX_API void _matmult_3x3(const float *A, const float *B, float *C);
/** C = A * B^T */
OX_API void _matmult_3x3t(const float *A, const float *B, float *C);
/** w = A * v */
OX_API void _matmult_3x3vec(const float *A, const float *v, float *w);
/** w = A^T * v */
OX_API void _matmult_3x3tvec(const float *A, const float *v, float *w);
/** A = -A, in place: flips nine sign bits, those of NaNs too. */
OX_API void _matneg_3x3(float *A);
/**
 * Determinant of A by its first row, every product and sum rounded to single precision:
 * (A01*c1 + A00*c0) + A02*c2 with c0 = A11*A22 - A12*A21, c1 = A12*A20 - A10*A22, c2 = A10*A21 - A11*A20.
 */
OX_API float _matdet_3x3(const float *A);
/** C = u * v^T, each product in single precision. */
OX_API void _vecoutp_3(const float *u, const float *v, float *C);
/** w = u x v */
OX_API void _veccrossp_3(const float *u, const float *v, float *w);
/** u . v */
OX_API float _vecdotp_3(const float *u, const float *v);

/* ------------------------------------------------------------------------------------------------
 * Linear Kalman filter, n states and m measurements, single precision
 * --------------------------------------------------------------------------------------------- */

/**
 * One filter. Every field may be read and written; the matrices are OX_F32 with one channel and belong to the
 * filter's own block, all but a model that was given: never pass those of the block to ox_mat_release.
 */
typedef struct ox_kalman_t {
  uint32_t state_dim;                 /**< n */
  uint32_t meas_dim;                  /**< m */
  ox_mat_t *state_pre;                /**< x' [n x 1]  predicted state */
  ox_mat_t *state_post;               /**< x  [n x 1]  corrected state */
  ox_mat_t *error_cov_pre;            /**< P' [n x n]  predicted error covariance */
  ox_mat_t *error_cov_post;           /**< P  [n x n]  corrected error covariance */
  ox_mat_t *gain;                     /**< K  [n x m] */
  ox_mat_t *temp1;                    /**<    [n x n]  A*P^T in predict, I - K*H in correct */
  ox_mat_t *temp2;                    /**<    [n x m]  P'*H^T */
  ox_mat_t *temp3;                    /**< S  [m x m]  innovation covariance */
  ox_mat_t *temp4;                    /**<    [m x m]  inverse of S */
  ox_mat_t *temp5;                    /**< y  [m x 1]  innovation */
  ox_mat_t *transition_matrix;        /**< A  [n x n] */
  ox_mat_t *measurement_matrix;       /**< H  [m x n] */
  ox_mat_t *process_noise_cov;        /**< Q  [n x n] */
  ox_mat_t *measurement_noise_cov;    /**< R  [m x m] */
  ox_mat_t *storage;                  /**< first matrix header inside the filter's block; the library never reads it */
} ox_kalman_t;

/**
 * Makes a filter in one zero-filled block.
 *
 * external_model  zero: A, H, Q, R are made in the block, all zero, for the caller to fill; the last four
 *                 arguments are not looked at. Non-zero: the four matrices given are used, must live as long
 *                 as the filter, are never written or freed, and may serve several filters.
 * Result          the filter, every matrix zero (set state_post and error_cov_post before the first predict);
 *                 null when the allocation fails or its size cannot be counted.
 */
OX_API ox_kalman_t *ox_kalman_create(uint32_t state_dim, uint32_t meas_dim, uint32_t external_model,
                                     ox_mat_t *transition_matrix, ox_mat_t *measurement_matrix,
                                     ox_mat_t *process_noise_cov, ox_mat_t *measurement_noise_cov);

/** Frees the filter with the matrices it owns. Null does nothing. */
OX_API void ox_kalman_release(ox_kalman_t *kf);

/**
 * x' = A*x,  P' = (A*P^T)*A^T + Q.
 *
 * Reads     state_post, error_cov_post and the model.  Writes  state_pre, error_cov_pre, temp1.
 * A second call without a correction gives the same prediction again: x and P stay as they are.
 * Cost      no allocation. Source: R. E. Kalman, "A New Approach to Linear Filtering and Prediction Problems", 1960.
 */
OX_API void ox_kalman_predict(ox_kalman_t *kf);

/**
 * S = H*(P'*H^T) + R,  K = (P'*H^T)*(S^-1)^T,  x = x' + K*(z - H*x'),  P = (I - K*H)*P'^T.
 *
 * measurement  z [m x 1], only read.
 * Reads        state_pre, error_cov_pre and the model: call it after a predict.
 * Writes       state_post, error_cov_post, gain and all temps.
 * Failure      a product whose operands do not fit leaves its destination as it was; a singular S is not noticed.
 * Threads      calls ox_mat_inv: never in two threads at once.  Cost  no allocation.
 */
OX_API void ox_kalman_correct(ox_kalman_t *kf, const ox_mat_t *measurement);

/* ------------------------------------------------------------------------------------------------
 * Multi-object box tracker
 * --------------------------------------------------------------------------------------------- */

typedef struct ox_track_t ox_track_t;

/** One detection as the tracker holds it. */
typedef struct ox_tracker_detection_t {
  int32_t label;  /**< the input's label, converted toward zero; saturates, NaN gives 0 */
  float cx;       /**< (x1 + x2) * 0.5 */
  float cy;       /**< (y1 + y2) * 0.5 */
  float w;        /**< x2 - x1 */
  float h;        /**< y2 - y1 */
  uint32_t score; /**< bits of the input's score */
} ox_tracker_detection_t;

/** One track. The filter's state is (cx, cy, prev_cx, prev_cy, w, h, prev_w, prev_h), its measurement (cx, cy, w, h). */
struct ox_track_t {
  ox_track_t *next; /**< the next younger track; of the youngest, the tracker itself: compare before reading */
  ox_track_t *prev; /**< the next older track; of the oldest, the tracker itself */
  int32_t id;       /**< -1 while tentative, then from 1; two share one only where 1048574 confirmations lie between */
  int32_t label;    /**< of the last detection matched */
  float cx, cy, w, h; /**< current box: last detection matched, or the corrected state */
  uint32_t score;   /**< bits of the score last matched */
  float prev_cx, prev_cy, prev_w, prev_h; /**< the current box before the last update */
  ox_kalman_t *kf;  /**< null while tentative */
  ox_mat_t *meas;   /**< 4 x 1 OX_F32; null while tentative, without defined contents until the first correction */
  float pred_cx, pred_cy, pred_w, pred_h; /**< box used for association in this frame */
  int32_t det_index; /**< detection matched in this frame, -1 for none */
  int32_t misses;    /**< consecutive frames without a match; stops at INT32_MAX */
  int32_t hits;      /**< matched frames so far; stops at INT32_MAX */
};

/**
 * A tracker, and the head of a ring of its tracks in order of birth: with no track, next and prev point to the
 * record itself. Walk it so:
 *   for (t = tracker->next; (void *)t != (void *)tracker; t = t->next)
 */
typedef struct ox_tracker_t {
  ox_track_t *next;      /**< oldest track, or this record */
  ox_track_t *prev;      /**< youngest track, or this record */
  int32_t track_count;   /**< tracks in the ring */
  int32_t next_id;       /**< identity of the next confirmed track; 1 follows 1048574 */
  int32_t capacity;      /**< most detections read, tracks alive and records written per frame */
  int32_t det_count;     /**< detections taken in the current frame */
  uint32_t aux0;         /**< the caller's, never read */
  uint32_t aux1;         /**< the caller's, never read */
  float near_dist2;      /**< squared centre distance up to which a pair counts as fully overlapping */
  float iou_threshold;   /**< overlap (intersection over union) that a match must exceed */
  int32_t confirm_hits;  /**< matched frames at which a track is confirmed */
  int32_t max_misses;    /**< consecutive misses beyond which a track is deleted; a tentative one beyond 5 at most */
  uint32_t any_label;    /**< zero: a detection meets tracks of its own label only */
  ox_mat_t *transition_matrix;     /**< A 8 x 8: next = 2 * current - previous, for cx, cy, w, h */
  ox_mat_t *measurement_matrix;    /**< H 4 x 8: picks cx, cy, w, h */
  ox_mat_t *process_noise_cov;     /**< Q 8 x 8: 0.1 * I */
  ox_mat_t *measurement_noise_cov; /**< R 4 x 4: I */
  ox_tracker_detection_t *detections; /**< [capacity] this frame's detections */
  ox_track_t **det_match;             /**< [capacity] the track each detection was given to, or null */
  float *det_dist2; /**< [capacity] squared distance to the nearest track; 100 without a candidate, 0 when refused */
} ox_tracker_t;

/**
 * Makes a tracker without tracks.
 *
 * aux0, aux1     kept, never read.
 * count          capacity; zero or below gives a tracker that tracks nothing.
 * confirm_hits, max_misses  below 1 become 1. A tentative track has its hits taken back to 0 while its consecutive
 *                misses are more than 3, and is deleted beyond 5 even where max_misses is larger.
 * near_dist2     in squared length units of the caller, clamped to 0..1; NaN becomes 1.
 * iou_threshold  clamped to 0..1; NaN becomes 1. With 1, only a pair whose overlap rounds above 1 exceeds it: as a
 *                rule nothing matches, not even within near_dist2, which makes an overlap of 1.
 * Result         null when an allocation fails; nothing stays allocated then.
 */
OX_API ox_tracker_t *ox_tracker_create(uint32_t aux0, uint32_t aux1, int32_t count, int32_t confirm_hits,
                                       int32_t max_misses, uint32_t any_label, float near_dist2,
                                       float iou_threshold);

/**
 * Replaces five parameters from the next frame on, as given: unlike at creation nothing is clamped.
 *
 * Tracks keep their counters and identities. A tentative track with hits at or above a lowered confirm_hits is
 * confirmed at its next match; a confirmed one below a raised confirm_hits takes raw detections until it is reached.
 */
OX_API void ox_tracker_set_params(ox_tracker_t *tracker, int32_t confirm_hits, int32_t max_misses,
                                  uint32_t any_label, float near_dist2, float iou_threshold);

/**
 * Frees the record and its three arrays, and nothing else. Null does nothing.
 *
 * The live tracks (free), each one's filter (ox_kalman_release) and meas (ox_mat_release), and the four model
 * matrices (ox_mat_release) stay the caller's to free before this call, if it wants them back;
 * examples/track_boxes.c shows it.
 */
OX_API void ox_tracker_release(ox_tracker_t *tracker);

/**
 * Processes one frame: predicts, associates, updates, gives birth, deletes, reports.
 *
 * boxes      records of six floats: label, x1, y1, x2, y2, score (top left, bottom right). The list ends at the
 *            first label equal to 0 (either sign) or after capacity records; end it with a 0 unless it is full.
 *            Not null. Nothing about a box is checked; NaN and negative sizes give defined results.
 * results    null, or room for capacity records of eight floats: id, label, x1, y1, x2, y2, score (its bits
 *            copied), index of the detection matched in this frame or -1. Confirmed tracks with at most two
 *            misses, oldest first; an id of -1 ends a list shorter than capacity. May be the storage of boxes.
 * Unit       of length: the caller's. The gate is fixed in it: a detection meets a track only if its centre is
 *            less than 10 units from the predicted one. Scale the coordinates if objects move further per frame.
 * Numbers    box arithmetic in single precision, one rounding per operation; half sizes are w * 0.5.
 * Allocates  one block for a birth, two for a confirmation; frees for deletions only. A failed birth is skipped;
 *            a failed confirmation leaves the track tentative and is tried again at its next match.
 * Threads    corrections call ox_mat_inv: never in two threads at once.
 */
OX_API void ox_tracker_process(ox_tracker_t *tracker, const float *boxes, float *results);

#ifdef __cplusplus
}
#endif

#endif
