// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "alloc_hook.h"
#include "ox.h"
#include "reference/kalman.h"
#include "support.h"

namespace {

using support::Random;

constexpr std::size_t kSlots = 14;
constexpr std::size_t kOwnedWithLentModel = 10;

// All matrices of a filter in the order of its record.
std::vector<ox_mat_t*> slots(const ox_kalman_t* kf) {
  return {kf->state_pre, kf->state_post,        kf->error_cov_pre,      kf->error_cov_post,    kf->gain,
          kf->temp1,     kf->temp2,             kf->temp3,              kf->temp4,             kf->temp5,
          kf->transition_matrix, kf->measurement_matrix, kf->process_noise_cov, kf->measurement_noise_cov};
}

struct Shape {
  std::uint32_t rows;
  std::uint32_t cols;
};

std::vector<Shape> shapes(std::uint32_t n, std::uint32_t m) {
  return {{n, 1}, {n, 1}, {n, n}, {n, n}, {n, m}, {n, n}, {n, m}, {m, m}, {m, m}, {m, 1},
          {n, n}, {m, n}, {n, n}, {m, m}};
}

struct ReleaseFilter {
  void operator()(ox_kalman_t* kf) const { ox_kalman_release(kf); }
};
using FilterPtr = std::unique_ptr<ox_kalman_t, ReleaseFilter>;

FilterPtr own_model_filter(std::uint32_t n, std::uint32_t m) {
  return FilterPtr(ox_kalman_create(n, m, 0, nullptr, nullptr, nullptr, nullptr));
}

std::size_t scalars(const ox_mat_t* m) { return static_cast<std::size_t>(m->rows) * static_cast<std::size_t>(m->cols); }

void set(ox_mat_t* m, const std::vector<float>& values) {
  ASSERT_EQ(scalars(m), values.size());
  if (!values.empty()) std::memcpy(m->data, values.data(), values.size() * sizeof(float));
}

std::vector<float> get(const ox_mat_t* m) {
  std::vector<float> values(scalars(m));
  if (!values.empty()) std::memcpy(values.data(), m->data, values.size() * sizeof(float));
  return values;
}

std::vector<float> identity(std::size_t n) {
  std::vector<float> values(n * n, 0.0f);
  for (std::size_t i = 0; i < n; ++i) values[i * n + i] = 1.0f;
  return values;
}

std::vector<float> scaled_identity(std::size_t n, float factor) {
  std::vector<float> values = identity(n);
  for (std::size_t i = 0; i < n; ++i) values[i * n + i] = factor;
  return values;
}

// Four matrices of the caller, each with a header of its own.
class LentModel {
 public:
  LentModel(std::uint32_t n, std::uint32_t m)
      : values{std::vector<float>(n * n + 1), std::vector<float>(m * n + 1), std::vector<float>(n * n + 1),
               std::vector<float>(m * m + 1)} {
    const std::vector<Shape> all = shapes(n, m);
    for (std::size_t i = 0; i < 4; ++i) {
      const Shape shape = all[kOwnedWithLentModel + i];
      headers[i] = support::header(OX_F32, static_cast<std::int32_t>(shape.rows),
                                   static_cast<std::int32_t>(shape.cols), values[i].data());
    }
  }

  FilterPtr make_filter(std::uint32_t n, std::uint32_t m, std::uint32_t external_model = 1) {
    return FilterPtr(ox_kalman_create(n, m, external_model, &headers[0], &headers[1], &headers[2], &headers[3]));
  }

  std::vector<float> values[4];  // one float more than the matrix, so that none is empty
  ox_mat_t headers[4] = {};
};

// The motion of a box: each of cx, cy, w, h moves on by its last step. States 0, 1, 4, 5 are measured.
std::vector<float> box_transition() {
  return {2, 0, -1, 0, 0, 0, 0, 0, 0, 2, 0, -1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0,
          0, 0, 0, 0, 2, 0, -1, 0, 0, 0, 0, 0, 0, 2, 0, -1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
}

std::vector<float> box_measurement() {
  return {1, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
}

FilterPtr box_filter() {
  FilterPtr kf = own_model_filter(8, 4);
  set(kf->transition_matrix, box_transition());
  set(kf->measurement_matrix, box_measurement());
  set(kf->process_noise_cov, scaled_identity(8, 0.1f));
  set(kf->measurement_noise_cov, identity(4));
  set(kf->error_cov_post, identity(8));
  return kf;
}

// The inverse's work area outlives every call and shows through a zero last pivot. A 40 x 40 inverse with one
// exchange of whole rows writes all of it, so that library and reference go on from the same contents.
void make_work_areas_equal() {
  std::vector<float> source(1600, 0.0f);
  for (std::size_t i = 0; i < 1600; ++i) source[i] = static_cast<float>((i * 7919) % 101) - 50.0f;
  for (std::size_t i = 0; i < 40; ++i) source[i * 41] += 400.0f;
  source[0] = 0.0f;
  std::vector<float> expected(1600);
  reference::kalman_inverse(source, expected, 40);
  std::vector<float> inverse(1600);
  const ox_mat_t src = support::header(OX_F32, 40, 40, source.data());
  ox_mat_t dst = support::header(OX_F32, 40, 40, inverse.data());
  ASSERT_EQ(ox_mat_inv(&src, &dst), 0);
  ASSERT_TRUE(support::same_values(OX_F32, inverse.data(), expected.data(), 1600));
}

std::size_t rounded_to_header(std::size_t bytes) {
  constexpr std::size_t unit = alignof(ox_mat_t);
  return (bytes + unit - 1) / unit * unit;
}

// The filter's block from its record to the end of its last matrix; every header is compared on the way.
std::size_t expect_layout(const ox_kalman_t* kf, std::uint32_t n, std::uint32_t m, std::size_t owned) {
  const auto* const block = reinterpret_cast<const unsigned char*>(kf);
  const std::vector<ox_mat_t*> matrices = slots(kf);
  const std::vector<Shape> expected = shapes(n, m);
  std::size_t position = sizeof(ox_kalman_t);
  EXPECT_EQ(static_cast<const void*>(kf->storage), block + position);
  for (std::size_t i = 0; i < owned; ++i) {
    SCOPED_TRACE("slot " + std::to_string(i));
    const ox_mat_t* const matrix = matrices[i];
    EXPECT_EQ(static_cast<const void*>(matrix), block + position);
    EXPECT_EQ(matrix->type, OX_F32);
    EXPECT_EQ(matrix->rows, static_cast<std::int32_t>(expected[i].rows));
    EXPECT_EQ(matrix->cols, static_cast<std::int32_t>(expected[i].cols));
    EXPECT_EQ(matrix->step, static_cast<std::int32_t>(expected[i].cols * 4));
    EXPECT_EQ(matrix->data, static_cast<const void*>(matrix + 1));
    std::size_t floats = static_cast<std::size_t>(expected[i].rows) * expected[i].cols;
    // The identity is written into an empty temp1 at correction: its one float has a place.
    if (matrix == kf->temp1 && n == 0) floats = 1;
    position += rounded_to_header(sizeof(ox_mat_t) + floats * sizeof(float));
  }
  return position;
}

// ------------------------------------------------------------------------------------------------ creation

TEST(KalmanCreate, OwnModelLaysFourteenMatricesInSlotOrderInOneBlock) {
  for (std::uint32_t n = 0; n <= 12; ++n) {
    for (std::uint32_t m = 0; m <= 12; ++m) {
      SCOPED_TRACE("n " + std::to_string(n) + ", m " + std::to_string(m));
      alloc_hook::reset();
      ox_kalman_t* const kf = ox_kalman_create(n, m, 0, nullptr, nullptr, nullptr, nullptr);
      const long calls = alloc_hook::calls();
      const std::size_t size = alloc_hook::last_size();
      const FilterPtr owner(kf);
      ASSERT_NE(kf, nullptr);
      EXPECT_EQ(calls, 1);
      EXPECT_EQ(kf->state_dim, n);
      EXPECT_EQ(kf->meas_dim, m);
      EXPECT_EQ(expect_layout(kf, n, m, kSlots), size);
    }
  }
}

TEST(KalmanCreate, LentModelLaysTenMatricesAndStoresTheFourPointersAsGiven) {
  for (std::uint32_t n = 0; n <= 12; ++n) {
    for (std::uint32_t m = 0; m <= 12; ++m) {
      SCOPED_TRACE("n " + std::to_string(n) + ", m " + std::to_string(m));
      LentModel model(n, m);
      alloc_hook::reset();
      ox_kalman_t* const kf = ox_kalman_create(n, m, 1, &model.headers[0], &model.headers[1], &model.headers[2],
                                               &model.headers[3]);
      const long calls = alloc_hook::calls();
      const std::size_t size = alloc_hook::last_size();
      const FilterPtr owner(kf);
      ASSERT_NE(kf, nullptr);
      EXPECT_EQ(calls, 1);
      EXPECT_EQ(kf->state_dim, n);
      EXPECT_EQ(kf->meas_dim, m);
      EXPECT_EQ(expect_layout(kf, n, m, kOwnedWithLentModel), size);
      for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(slots(kf)[kOwnedWithLentModel + i], &model.headers[i]);
    }
  }
}

TEST(KalmanCreate, EightStatesAndFourMeasurementsNeedTheBlockThatTheRecordsAddUpTo) {
  alloc_hook::reset();
  ox_kalman_t* const kf = ox_kalman_create(8, 4, 0, nullptr, nullptr, nullptr, nullptr);
  const std::size_t own = alloc_hook::last_size();
  ox_kalman_release(kf);
  // Every count of elements but that of no matrix is even, so that no gap lies between the matrices.
  EXPECT_EQ(own, sizeof(ox_kalman_t) + 14 * sizeof(ox_mat_t) +
                     4 * (8 + 8 + 64 + 64 + 32 + 64 + 32 + 16 + 16 + 4 + 64 + 32 + 64 + 16));
}

TEST(KalmanCreate, ModelArgumentsAreNotLookedAtWhenTheModelIsOwn) {
  auto* const anything = reinterpret_cast<ox_mat_t*>(static_cast<std::uintptr_t>(16));
  const FilterPtr kf(ox_kalman_create(3, 2, 0, anything, anything, anything, anything));
  ASSERT_NE(kf, nullptr);
  for (std::size_t i = kOwnedWithLentModel; i < kSlots; ++i) EXPECT_NE(slots(kf.get())[i], anything);
}

TEST(KalmanCreate, AnyNonZeroWordLendsTheModel) {
  LentModel model(3, 2);
  for (const std::uint32_t word : {2u, 0x100u, 0x80000000u, 0xFFFFFFFFu}) {
    const FilterPtr kf = model.make_filter(3, 2, word);
    ASSERT_NE(kf, nullptr);
    EXPECT_EQ(kf->transition_matrix, &model.headers[0]) << word;
    EXPECT_EQ(kf->measurement_noise_cov, &model.headers[3]) << word;
  }
}

TEST(KalmanCreate, LentNullModelIsStoredAsGiven) {
  const FilterPtr kf(ox_kalman_create(3, 2, 1, nullptr, nullptr, nullptr, nullptr));
  ASSERT_NE(kf, nullptr);
  for (std::size_t i = kOwnedWithLentModel; i < kSlots; ++i) EXPECT_EQ(slots(kf.get())[i], nullptr);
}

TEST(KalmanCreate, EveryMatrixStartsAtZero) {
  // A block of the same size is soiled and given back first: it is the one most likely to be handed out again.
  for (const std::uint32_t n : {1u, 3u, 8u}) {
    alloc_hook::reset();
    own_model_filter(n, 4).reset();
    const std::size_t size = alloc_hook::last_size();
    auto* const soiled = static_cast<volatile unsigned char*>(std::malloc(size));
    ASSERT_NE(soiled, nullptr);
    for (std::size_t i = 0; i < size; ++i) soiled[i] = 0xA5;
    std::free(const_cast<unsigned char*>(soiled));

    const FilterPtr kf = own_model_filter(n, 4);
    ASSERT_NE(kf, nullptr);
    for (const ox_mat_t* matrix : slots(kf.get())) EXPECT_EQ(get(matrix), std::vector<float>(scalars(matrix), 0.0f));
  }
}

TEST(KalmanCreate, FailedAllocationGivesNull) {
  LentModel model(8, 4);
  alloc_hook::reset();
  alloc_hook::fail_from(1, 1);
  ox_kalman_t* const own = ox_kalman_create(8, 4, 0, nullptr, nullptr, nullptr, nullptr);
  alloc_hook::fail_from(1, 1);
  ox_kalman_t* const lent = ox_kalman_create(8, 4, 1, &model.headers[0], &model.headers[1], &model.headers[2],
                                             &model.headers[3]);
  const long live = alloc_hook::live();
  alloc_hook::reset();
  EXPECT_EQ(own, nullptr);
  EXPECT_EQ(lent, nullptr);
  EXPECT_EQ(live, 0);
}

TEST(KalmanCreate, SizesThatCannotBeCountedGiveNull) {
  struct Dimensions {
    std::uint32_t n;
    std::uint32_t m;
  };
  std::vector<Dimensions> uncountable = {
      {0xFFFFFFFFu, 0xFFFFFFFFu}, {0xFFFFFFFFu, 0}, {0, 0xFFFFFFFFu}, {0xFFFFFFFFu, 1}, {1, 0xFFFFFFFFu},
      // n * n floats are 2^64 bytes exactly, which wrap to none.
      {0x80000000u, 0}, {0, 0x80000000u},
      // One n x n matrix can be counted in 64 bits, the sum of them cannot.
      {0x7FFFFFFFu, 0}, {0, 0x7FFFFFFFu},
      // The elements of K are 16 bytes short of 2^64; its header is more.
      {0x40000001u, 0xFFFFFFFCu},
      // Only the last matrix, Q or R, goes beyond.
      {1000000000u, 0}, {0, 1300000000u}};
  if (sizeof(void*) == 4) {
    // 2^32 and 2^34 bytes a matrix, then five matrices of 2^30.
    uncountable.insert(uncountable.end(), {{32768, 0}, {65536, 0}, {0, 65536}, {65536, 65536}, {16384, 0}});
  }
  for (const Dimensions& d : uncountable) {
    alloc_hook::reset();
    ox_kalman_t* const kf = ox_kalman_create(d.n, d.m, 0, nullptr, nullptr, nullptr, nullptr);
    const long calls = alloc_hook::calls();
    EXPECT_EQ(kf, nullptr) << d.n << " x " << d.m;
    EXPECT_EQ(calls, 0) << d.n << " x " << d.m << ": the size asked for is not the size needed";
  }
}

// ------------------------------------------------------------------------------------------------- release

TEST(KalmanRelease, NullDoesNothing) {
  alloc_hook::reset();
  ox_kalman_release(nullptr);
  EXPECT_EQ(alloc_hook::live(), 0);
}

TEST(KalmanRelease, FreesTheOneBlock) {
  alloc_hook::reset();
  ox_kalman_t* const kf = ox_kalman_create(8, 4, 0, nullptr, nullptr, nullptr, nullptr);
  const long before = alloc_hook::live();
  ox_kalman_release(kf);
  const long after = alloc_hook::live();
  EXPECT_EQ(before, 1);
  EXPECT_EQ(after, 0);
}

TEST(KalmanRelease, LeavesTheLentModelToTheOtherFilters) {
  LentModel model(8, 4);
  set(&model.headers[0], box_transition());
  set(&model.headers[1], box_measurement());
  set(&model.headers[2], scaled_identity(8, 0.1f));
  set(&model.headers[3], identity(4));
  FilterPtr first = model.make_filter(8, 4);
  const FilterPtr second = model.make_filter(8, 4);
  ox_kalman_predict(first.get());
  first.reset();

  EXPECT_EQ(get(&model.headers[0]), box_transition());
  EXPECT_EQ(get(&model.headers[1]), box_measurement());
  EXPECT_EQ(get(&model.headers[2]), scaled_identity(8, 0.1f));
  EXPECT_EQ(get(&model.headers[3]), identity(4));
  ox_kalman_predict(second.get());
  EXPECT_EQ(get(second->error_cov_pre), scaled_identity(8, 0.1f));
}

// ------------------------------------------------------------------------------------------------- predict

TEST(KalmanPredict, ZeroTransitionGivesZeroStateAndTheProcessNoise) {
  const FilterPtr kf = own_model_filter(8, 4);
  set(kf->state_post, {1, 2, 3, 4, 5, 6, 7, 8});
  set(kf->error_cov_post, identity(8));
  set(kf->process_noise_cov, scaled_identity(8, 0.25f));
  set(kf->state_pre, std::vector<float>(8, 9.0f));
  ox_kalman_predict(kf.get());
  EXPECT_EQ(get(kf->state_pre), std::vector<float>(8, 0.0f));
  EXPECT_EQ(get(kf->error_cov_pre), scaled_identity(8, 0.25f));
}

TEST(KalmanPredict, FreshFilterPredictsZeroStateAndTheProcessNoise) {
  const FilterPtr kf = own_model_filter(8, 4);
  set(kf->transition_matrix, box_transition());
  set(kf->process_noise_cov, scaled_identity(8, 0.1f));
  ox_kalman_predict(kf.get());
  EXPECT_EQ(get(kf->state_pre), std::vector<float>(8, 0.0f));
  EXPECT_EQ(get(kf->error_cov_pre), scaled_identity(8, 0.1f));
}

TEST(KalmanPredict, BoxModelSpreadsUnitCovarianceTo5Point1) {
  const FilterPtr kf = box_filter();
  ox_kalman_predict(kf.get());
  std::vector<float> expected(64, 0.0f);
  for (const std::size_t i : {0u, 1u, 4u, 5u}) {
    const std::size_t before = i + 2;
    expected[i * 8 + i] = 0.1f + 4.0f + 1.0f;  // the noise is the first term of the sum
    expected[i * 8 + before] = 2.0f;
    expected[before * 8 + i] = 2.0f;
    expected[before * 8 + before] = 0.1f + 1.0f;
  }
  EXPECT_EQ(get(kf->error_cov_pre), expected);
  EXPECT_FLOAT_EQ(get(kf->error_cov_pre)[0], 5.1f);
}

TEST(KalmanPredict, MovesTheStateOnByItsLastStep) {
  const FilterPtr kf = box_filter();
  set(kf->state_post, {10, 20, 8, 25, 4, 6, 3, 7});
  ox_kalman_predict(kf.get());
  EXPECT_EQ(get(kf->state_pre), (std::vector<float>{12, 15, 10, 20, 5, 5, 4, 6}));
}

TEST(KalmanPredict, TakesTheCovarianceTransposed) {
  const FilterPtr kf = own_model_filter(2, 1);
  set(kf->transition_matrix, {1, 10, 100, 1000});
  set(kf->error_cov_post, {1, 2, 3, 4});
  ox_kalman_predict(kf.get());
  EXPECT_EQ(get(kf->temp1), (std::vector<float>{21, 43, 2100, 4300}));  // A * P^T
  EXPECT_EQ(get(kf->error_cov_pre), (std::vector<float>{451, 45100, 45100, 4510000}));
}

TEST(KalmanPredict, SecondPredictionIsTheFirstAgain) {
  const FilterPtr kf = box_filter();
  set(kf->state_post, {10, 20, 8, 25, 4, 6, 3, 7});
  ox_kalman_predict(kf.get());
  const std::vector<float> state = get(kf->state_pre);
  const std::vector<float> covariance = get(kf->error_cov_pre);
  ox_kalman_predict(kf.get());
  EXPECT_EQ(get(kf->state_pre), state);
  EXPECT_EQ(get(kf->error_cov_pre), covariance);
  EXPECT_EQ(get(kf->state_post), (std::vector<float>{10, 20, 8, 25, 4, 6, 3, 7}));
  EXPECT_EQ(get(kf->error_cov_post), identity(8));
}

TEST(KalmanPredict, MisshapenTransitionLeavesWhatItsProductsWouldWrite) {
  LentModel model(2, 1);
  set(&model.headers[0], {1, 0, 0, 1});
  set(&model.headers[2], {1, 0, 0, 1});
  model.headers[0].cols = 1;
  const FilterPtr kf = model.make_filter(2, 1);
  set(kf->state_post, {1, 2});
  set(kf->state_pre, {3, 4});
  set(kf->error_cov_pre, {5, 6, 7, 8});
  set(kf->temp1, {9, 10, 11, 12});
  ox_kalman_predict(kf.get());
  EXPECT_EQ(get(kf->state_pre), (std::vector<float>{3, 4}));
  EXPECT_EQ(get(kf->temp1), (std::vector<float>{9, 10, 11, 12}));
  EXPECT_EQ(get(kf->error_cov_pre), (std::vector<float>{5, 6, 7, 8}));
}

// ------------------------------------------------------------------------------------------------- correct

TEST(KalmanCorrect, ExpectedMeasurementLeavesTheState) {
  const FilterPtr kf = box_filter();
  set(kf->state_post, {10, 20, 8, 25, 4, 6, 3, 7});
  ox_kalman_predict(kf.get());
  const std::vector<float> x = get(kf->state_pre);
  std::vector<float> z = {x[0], x[1], x[4], x[5]};
  const ox_mat_t measurement = support::header(OX_F32, 4, 1, z.data());
  ox_kalman_correct(kf.get(), &measurement);
  EXPECT_EQ(get(kf->temp5), std::vector<float>(4, 0.0f));
  EXPECT_EQ(get(kf->state_post), x);
  // The measurement still counts: the covariance shrinks.
  EXPECT_LT(get(kf->error_cov_post)[0], get(kf->error_cov_pre)[0]);
}

TEST(KalmanCorrect, OneStateFollowsTheFormulas) {
  const FilterPtr kf = own_model_filter(1, 1);
  set(kf->transition_matrix, {1});
  set(kf->measurement_matrix, {2});
  set(kf->process_noise_cov, {1});
  set(kf->measurement_noise_cov, {4});
  set(kf->state_post, {3});
  set(kf->error_cov_post, {2});
  ox_kalman_predict(kf.get());
  std::vector<float> z = {14};
  const ox_mat_t measurement = support::header(OX_F32, 1, 1, z.data());
  ox_kalman_correct(kf.get(), &measurement);
  EXPECT_EQ(get(kf->temp2), (std::vector<float>{6}));        // P' = 3, P' * H
  EXPECT_EQ(get(kf->temp3), (std::vector<float>{16}));       // H * 6 + R
  EXPECT_EQ(get(kf->temp4), (std::vector<float>{0.0625f}));  // its inverse
  EXPECT_EQ(get(kf->gain), (std::vector<float>{0.375f}));
  EXPECT_EQ(get(kf->temp5), (std::vector<float>{8}));        // 14 - 2 * 3
  EXPECT_EQ(get(kf->state_post), (std::vector<float>{6}));   // 3 + 0.375 * 8
  EXPECT_EQ(get(kf->temp1), (std::vector<float>{0.25f}));    // 1 - 0.375 * 2
  EXPECT_EQ(get(kf->error_cov_post), (std::vector<float>{0.75f}));
}

// An innovation covariance that is not symmetric tells S^-1 from its transpose, and P' from its own.
TEST(KalmanCorrect, TakesTheInverseAndTheCovarianceTransposed) {
  const FilterPtr kf = own_model_filter(2, 2);
  set(kf->measurement_matrix, identity(2));
  set(kf->measurement_noise_cov, {0, 0, 0, 0});
  set(kf->error_cov_pre, {1, 2, 0, 4});
  std::vector<float> z = {0, 0};
  const ox_mat_t measurement = support::header(OX_F32, 2, 1, z.data());
  ox_kalman_correct(kf.get(), &measurement);
  EXPECT_EQ(get(kf->temp4), (std::vector<float>{1, -0.5f, 0, 0.25f}));
  // [1 2; 0 4] * [1 0; -0.5 0.25]
  EXPECT_EQ(get(kf->gain), (std::vector<float>{0, 0.5f, -2, 1}));
  EXPECT_EQ(get(kf->temp1), (std::vector<float>{1, -0.5f, 2, 0}));
  // [1 -0.5; 2 0] * [1 0; 2 4]
  EXPECT_EQ(get(kf->error_cov_post), (std::vector<float>{0, -2, 2, 0}));
}

TEST(KalmanCorrect, MisshapenMeasurementKeepsTheLastInnovation) {
  const FilterPtr kf = box_filter();
  ox_kalman_predict(kf.get());
  set(kf->temp5, {1, 2, 3, 4});
  std::vector<float> z = {9, 9, 9, 9};
  const ox_mat_t measurement = support::header(OX_F32, 1, 4, z.data());
  ox_kalman_correct(kf.get(), &measurement);
  EXPECT_EQ(get(kf->temp5), (std::vector<float>{1, 2, 3, 4}));
  EXPECT_GT(get(kf->state_post)[0], 0.5f);
  EXPECT_LT(get(kf->state_post)[0], 1.0f);
}

TEST(KalmanCorrect, MoreThanFortyMeasurementsLeaveTheInverseAsItWas) {
  const FilterPtr kf = own_model_filter(1, 41);
  set(kf->measurement_noise_cov, identity(41));
  set(kf->temp4, std::vector<float>(41 * 41, 0.5f));
  ox_kalman_predict(kf.get());
  std::vector<float> z(41, 1.0f);
  const ox_mat_t measurement = support::header(OX_F32, 41, 1, z.data());
  ox_kalman_correct(kf.get(), &measurement);
  EXPECT_EQ(get(kf->temp3), identity(41));
  EXPECT_EQ(get(kf->temp4), std::vector<float>(41 * 41, 0.5f));
}

TEST(KalmanCorrect, NoMeasurementsLeaveThePrediction) {
  const FilterPtr kf = own_model_filter(2, 0);
  set(kf->transition_matrix, {2, 0, 0, 3});
  set(kf->process_noise_cov, {1, 2, 3, 4});
  set(kf->state_post, {5, 7});
  ox_kalman_predict(kf.get());
  const ox_mat_t measurement = support::header(OX_F32, 0, 1, nullptr);
  ox_kalman_correct(kf.get(), &measurement);
  EXPECT_EQ(get(kf->state_post), (std::vector<float>{10, 21}));
  EXPECT_EQ(get(kf->temp1), identity(2));
  EXPECT_EQ(get(kf->error_cov_post), (std::vector<float>{1, 3, 2, 4}));
}

TEST(KalmanCorrect, NoStatesWriteOnlyWhatTheMeasurementGives) {
  for (const bool own : {true, false}) {
    LentModel model(0, 3);
    alloc_hook::reset();
    const FilterPtr kf = own ? own_model_filter(0, 3) : model.make_filter(0, 3);
    const std::size_t size = alloc_hook::last_size();
    const std::size_t owned = own ? kSlots : kOwnedWithLentModel;
    set(kf->measurement_noise_cov, {2, 0, 0, 0, 4, 0, 0, 0, 8});
    ox_kalman_predict(kf.get());
    std::vector<float> z = {1, 2, 3};
    const ox_mat_t measurement = support::header(OX_F32, 3, 1, z.data());
    ox_kalman_correct(kf.get(), &measurement);
    EXPECT_EQ(expect_layout(kf.get(), 0, 3, owned), size);
    EXPECT_EQ(get(kf->temp3), (std::vector<float>{2, 0, 0, 0, 4, 0, 0, 0, 8}));
    EXPECT_EQ(get(kf->temp4), (std::vector<float>{0.5f, 0, 0, 0, 0.25f, 0, 0, 0, 0.125f}));
    EXPECT_EQ(get(kf->temp5), z);
  }
}

TEST(KalmanCycle, AllocatesNothing) {
  const FilterPtr kf = box_filter();
  float z[4] = {1, 2, 3, 4};
  const ox_mat_t measurement = support::header(OX_F32, 4, 1, z);
  alloc_hook::reset();
  for (int i = 0; i < 3; ++i) {
    ox_kalman_predict(kf.get());
    ox_kalman_correct(kf.get(), &measurement);
  }
  EXPECT_EQ(alloc_hook::calls(), 0);
  EXPECT_EQ(alloc_hook::live(), 0);
}

TEST(KalmanCycle, SettlesOnASteadyMotion) {
  const FilterPtr kf = box_filter();
  float z[4] = {0, 0, 10, 20};
  const ox_mat_t measurement = support::header(OX_F32, 4, 1, z);
  set(kf->state_post, {0, 0, 0, 0, 10, 20, 10, 20});
  for (int i = 1; i <= 60; ++i) {
    z[0] = static_cast<float>(3 * i);
    z[1] = static_cast<float>(-2 * i);
    ox_kalman_predict(kf.get());
    ox_kalman_correct(kf.get(), &measurement);
  }
  ox_kalman_predict(kf.get());
  const std::vector<float> next = get(kf->state_pre);
  EXPECT_NEAR(next[0], 183.0f, 0.01f);
  EXPECT_NEAR(next[1], -122.0f, 0.01f);
  EXPECT_NEAR(next[4], 10.0f, 0.01f);
  EXPECT_NEAR(next[5], 20.0f, 0.01f);
}

// ------------------------------------------------------------------------------------- against the reference

void fill(Random& random, std::vector<float>& values, support::Data kind) {
  support::fill(random, OX_F32, reinterpret_cast<unsigned char*>(values.data()), values.size(), kind);
  // Exact zeros make the inverse exchange rows and run past its matrix.
  if (kind != support::Data::kTame) {
    for (float& value : values) {
      if (random.one_in(3)) value = 0.0f;
    }
  }
}

struct Pair {
  const char* name;
  ox_mat_t* got;
  const std::vector<float>* expected;
};

class Twins {
 public:
  Twins(Random& random, std::uint32_t n, std::uint32_t m, bool own, support::Data kind)
      : n_(n), m_(m), owned_(own ? kSlots : kOwnedWithLentModel), lent_(n, m) {
    auto model = std::make_shared<reference::KalmanModel>(n, m);
    fill(random, model->transition, kind);
    fill(random, model->measurement, kind);
    fill(random, model->process_noise, kind);
    fill(random, model->measurement_noise, kind);
    ref_ = std::make_unique<reference::Kalman>(n, m, model);
    kf_ = own ? own_model_filter(n, m) : lent_.make_filter(n, m);
    set(kf_->transition_matrix, model->transition);
    set(kf_->measurement_matrix, model->measurement);
    set(kf_->process_noise_cov, model->process_noise);
    set(kf_->measurement_noise_cov, model->measurement_noise);
  }

  void start(Random& random, support::Data kind) {
    fill(random, ref_->state_post, kind);
    fill(random, ref_->error_cov_post, kind);
    set(kf_->state_post, ref_->state_post);
    set(kf_->error_cov_post, ref_->error_cov_post);
  }

  void predict() {
    ox_kalman_predict(kf_.get());
    ref_->predict();
  }

  void correct(Random& random, support::Data kind) {
    std::vector<float> z(m_);
    fill(random, z, kind);
    std::vector<float> lent_z = z;
    const ox_mat_t measurement = support::header(OX_F32, static_cast<std::int32_t>(m_), 1, lent_z.data());
    ox_kalman_correct(kf_.get(), &measurement);
    ref_->correct(z);
    if (m_ == 0) return;  // null is no argument for a comparison, not even of no bytes
    EXPECT_TRUE(support::same_bytes(lent_z.data(), z.data(), m_ * sizeof(float)));
  }

  ::testing::AssertionResult same() const {
    const ox_kalman_t& kf = *kf_;
    const reference::KalmanModel& model = *ref_->model;
    const Pair pairs[kSlots] = {{"x'", kf.state_pre, &ref_->state_pre},
                                {"x", kf.state_post, &ref_->state_post},
                                {"P'", kf.error_cov_pre, &ref_->error_cov_pre},
                                {"P", kf.error_cov_post, &ref_->error_cov_post},
                                {"K", kf.gain, &ref_->gain},
                                {"temp1", kf.temp1, &ref_->temp1},
                                {"temp2", kf.temp2, &ref_->temp2},
                                {"temp3", kf.temp3, &ref_->temp3},
                                {"temp4", kf.temp4, &ref_->temp4},
                                {"temp5", kf.temp5, &ref_->temp5},
                                {"A", kf.transition_matrix, &model.transition},
                                {"H", kf.measurement_matrix, &model.measurement},
                                {"Q", kf.process_noise_cov, &model.process_noise},
                                {"R", kf.measurement_noise_cov, &model.measurement_noise}};
    for (std::size_t i = 0; i < kSlots; ++i) {
      const Pair& pair = pairs[i];
      if (pair.expected->empty()) continue;  // as above
      const bool is_model = i >= kOwnedWithLentModel;
      ::testing::AssertionResult verdict =
          is_model ? support::same_bytes(pair.got->data, pair.expected->data(), pair.expected->size() * sizeof(float))
                   : support::same_values(OX_F32, pair.got->data, pair.expected->data(), pair.expected->size());
      if (!verdict) return verdict << "in " << pair.name << ' ';
    }
    return ::testing::AssertionSuccess();
  }

  void expect_headers_intact() const { expect_layout(kf_.get(), n_, m_, owned_); }

  bool state_is_finite() const {
    for (const float value : ref_->state_post) {
      if (!(std::fabs(value) <= std::numeric_limits<float>::max())) return false;
    }
    return true;
  }

 private:
  std::uint32_t n_;
  std::uint32_t m_;
  std::size_t owned_;
  LentModel lent_;
  FilterPtr kf_;
  std::unique_ptr<reference::Kalman> ref_;
};

TEST(KalmanRandom, EveryMatrixMatchesTheReferenceAfterEveryStep) {
  make_work_areas_equal();
  Random random(0x5EED0001u);
  long finite = 0;
  long not_finite = 0;
  for (int round = 0; round < support::scaled(48); ++round) {
    for (std::uint32_t n = 0; n <= 12; ++n) {
      for (std::uint32_t m = 0; m <= 12; ++m) {
        const support::Data kind = support::any_kind(random);
        Twins twins(random, n, m, random.one_in(2), kind);
        if (!random.one_in(8)) twins.start(random, kind);
        for (int step = 0; step < 4; ++step) {
          const std::int32_t predictions = random.between(0, 2);
          for (std::int32_t i = 0; i < predictions; ++i) {
            twins.predict();
            ASSERT_TRUE(twins.same()) << random << "round " << round << ", predict, n " << n << ", m " << m;
          }
          twins.correct(random, kind);
          ASSERT_TRUE(twins.same()) << random << "round " << round << ", correct, n " << n << ", m " << m;
          if (n > 0) ++(twins.state_is_finite() ? finite : not_finite);
        }
        twins.expect_headers_intact();
        ASSERT_FALSE(HasFailure()) << random << "n " << n << ", m " << m;
      }
    }
  }
  EXPECT_GT(finite, 500);
  EXPECT_GT(not_finite, 500);
}

TEST(KalmanRandom, LargeFiltersMatchTheReference) {
  make_work_areas_equal();
  Random random(0x5EED0002u);
  for (int round = 0; round < support::scaled(32); ++round) {
    const auto n = static_cast<std::uint32_t>(random.between(13, 48));
    const auto m = static_cast<std::uint32_t>(random.between(13, 39));
    // No exact zeros here: the row behind a 40 x 40 matrix would be the exchange buffer itself.
    Twins twins(random, n, m, random.one_in(2), support::Data::kTame);
    twins.start(random, support::Data::kTame);
    for (int step = 0; step < 2; ++step) {
      twins.predict();
      twins.correct(random, support::Data::kTame);
      ASSERT_TRUE(twins.same()) << random << "round " << round << ", n " << n << ", m " << m;
    }
  }
}

// The motion of boxes, as the tracker uses it, over long runs.
TEST(KalmanRandom, BoxFilterMatchesTheReferenceOverLongRuns) {
  Random random(0x5EED0003u);
  for (int run = 0; run < support::scaled(40); ++run) {
    const FilterPtr kf = box_filter();
    auto model = std::make_shared<reference::KalmanModel>(8, 4);
    model->transition = box_transition();
    model->measurement = box_measurement();
    model->process_noise = scaled_identity(8, 0.1f);
    model->measurement_noise = identity(4);
    reference::Kalman ref(8, 4, model);
    ref.error_cov_post = identity(8);
    for (int step = 0; step < 200; ++step) {
      ox_kalman_predict(kf.get());
      ref.predict();
      if (random.one_in(5)) continue;
      std::vector<float> z(4);
      fill(random, z, support::Data::kTame);
      const ox_mat_t measurement = support::header(OX_F32, 4, 1, z.data());
      ox_kalman_correct(kf.get(), &measurement);
      ref.correct(z);
      ASSERT_TRUE(support::same_values(OX_F32, kf->state_post->data, ref.state_post.data(), 8))
          << random << "run " << run << ", step " << step;
      ASSERT_TRUE(support::same_values(OX_F32, kf->error_cov_post->data, ref.error_cov_post.data(), 64))
          << random << "run " << run << ", step " << step;
    }
  }
}

// ------------------------------------------------------------------------- against the calls it is made of

void predict_by_calls(const ox_kalman_t& kf) {
  const ox_mat_t* const A = kf.transition_matrix;
  ox_mat_mul(A, kf.state_post, kf.state_pre, 0);
  ox_mat_mul(A, kf.error_cov_post, kf.temp1, OX_MAT_TRANSPOSE_B);
  ox_mat_muladd(kf.temp1, A, kf.process_noise_cov, kf.error_cov_pre, OX_MAT_TRANSPOSE_B);
}

void correct_by_calls(const ox_kalman_t& kf, const ox_mat_t* z) {
  const ox_mat_t* const H = kf.measurement_matrix;
  ox_mat_mul(kf.error_cov_pre, H, kf.temp2, OX_MAT_TRANSPOSE_B);
  ox_mat_muladd(H, kf.temp2, kf.measurement_noise_cov, kf.temp3, 0);
  ox_mat_inv(kf.temp3, kf.temp4);
  ox_mat_mul(kf.temp2, kf.temp4, kf.gain, OX_MAT_TRANSPOSE_B);
  ox_mat_submul(z, H, kf.state_pre, kf.temp5, 0);
  ox_mat_muladd(kf.gain, kf.temp5, kf.state_pre, kf.state_post, 0);
  ox_mat_submul(nullptr, kf.gain, H, kf.temp1, OX_MAT_IDENTITY_C);
  ox_mat_mul(kf.temp1, kf.error_cov_pre, kf.error_cov_post, OX_MAT_TRANSPOSE_B);
}

// Two filters of 8 states and 4 measurements with the same contents, and a measurement for each.
class EqualFilters {
 public:
  EqualFilters(Random& random, support::Data kind) {
    for (std::size_t s = 0; s <= kSlots; ++s) {
      std::vector<float> values(scalars(filter_.matrices[s]));
      fill(random, values, kind);
      set(filter_.matrices[s], values);
      set(twin_.matrices[s], values);
      sizes_.push_back(values.size());
    }
  }

  template <class Change> void change_slot(std::size_t s, const Change& change) {
    change(*filter_.matrices[s]);
    change(*twin_.matrices[s]);
  }
  template <class Change> void change(const Change& change) {
    change(*filter_.kf, filter_.measurement);
    change(*twin_.kf, twin_.measurement);
  }

  // What the filter makes of it, and what its calls make.
  ::testing::AssertionResult agree() {
    ox_kalman_predict(filter_.kf.get());
    predict_by_calls(*twin_.kf);
    ::testing::AssertionResult verdict = same("predict");
    if (!verdict) return verdict;
    make_work_areas_equal();
    ox_kalman_correct(filter_.kf.get(), &filter_.measurement);
    make_work_areas_equal();
    correct_by_calls(*twin_.kf, &twin_.measurement);
    return same("correct");
  }

 private:
  struct Side {
    Side() : kf(own_model_filter(8, 4)), measurement(support::header(OX_F32, 4, 1, z)), matrices(slots(kf.get())) {
      matrices.push_back(&measurement);
    }
    float z[4] = {};
    FilterPtr kf;
    ox_mat_t measurement;
    std::vector<ox_mat_t*> matrices;  // the slots, and the measurement
  };

  ::testing::AssertionResult same(const char* step) const {
    for (std::size_t s = 0; s < sizes_.size(); ++s) {
      auto verdict = support::same_values(OX_F32, filter_.matrices[s]->data, twin_.matrices[s]->data, sizes_[s]);
      if (!verdict) return verdict << " after " << step << ", slot " << s;
    }
    return ::testing::AssertionSuccess();
  }

  Side filter_, twin_;
  std::vector<std::size_t> sizes_;
};

TEST(KalmanCalls, AHeaderOfOtherSizeOrTypeIsRefusedByItsProductsAlone) {
  Random random(11);
  for (std::size_t s = 0; s <= kSlots; ++s) {
    for (int change = 0; change < 5; ++change) {
      EqualFilters filters(random, support::Data::kTame);
      filters.change_slot(s, [change](ox_mat_t& m) {
        if (change == 0) m.type |= 0x80000000u;
        if (change == 1) m.type = OX_S32;
        if (change == 2) m.rows -= 1;
        if (change == 3) m.cols -= 1;
        if (change == 4) std::swap(m.rows, m.cols);
      });
      ASSERT_TRUE(filters.agree()) << random << "slot " << s << ", change " << change;
    }
  }
}

// A destination with its addend; what is only read with anything; what a call writes with what only later calls read.
TEST(KalmanCalls, MatricesMayShareStorageWhereTheCallsAllowIt) {
  using Change = void (*)(ox_kalman_t&, ox_mat_t&);
  const Change changes[] = {
      [](ox_kalman_t&, ox_mat_t&) {},
      [](ox_kalman_t& kf, ox_mat_t& z) { z = *kf.temp5; },
      [](ox_kalman_t& kf, ox_mat_t& z) { z = ox_mat_t{OX_F32, 4, 1, 4, kf.state_post->data}; },
      [](ox_kalman_t& kf, ox_mat_t& z) { z = ox_mat_t{OX_F32, 4, 1, 4, kf.temp1->data}; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.process_noise_cov = kf.transition_matrix; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.process_noise_cov = kf.error_cov_pre; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.process_noise_cov = kf.error_cov_post; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.transition_matrix = kf.error_cov_post; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.measurement_noise_cov = kf.temp3; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.temp4 = kf.temp3; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.measurement_matrix->data = kf.error_cov_pre->data; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.temp5->data = kf.temp3->data; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.gain->data = kf.measurement_matrix->data; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.temp4->data = kf.measurement_matrix->data; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.state_post->data = kf.measurement_matrix->data; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.state_post->data = kf.error_cov_pre->data; },
      [](ox_kalman_t& kf, ox_mat_t&) { kf.state_pre->data = kf.gain->data; },
  };
  Random random(12);
  for (int repeat = 0; repeat < 20; ++repeat) {
    for (std::size_t c = 0; c < sizeof changes / sizeof *changes; ++c) {
      EqualFilters filters(random, repeat % 2 == 0 ? support::Data::kTame : support::Data::kHostile);
      filters.change(changes[c]);
      ASSERT_TRUE(filters.agree()) << random << "change " << c;
    }
  }
}

}  // namespace
