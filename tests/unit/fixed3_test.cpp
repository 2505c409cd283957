// SPDX-License-Identifier: MIT
#include "support.h"

namespace {

using support::Data;
using support::same_bytes;
using support::same_values;

// The seven routines that write an array, in one shape: how many floats each operand has.
struct Routine {
  const char* name;
  void (*library)(const float*, const float*, float*);
  void (*reference)(const float*, const float*, float*);
  std::size_t first, second, output;
};
const Routine kRoutines[] = {{"_matmult_3x3", _matmult_3x3, reference::matmult_3x3, 9, 9, 9},
                             {"_matmult_3x3t", _matmult_3x3t, reference::matmult_3x3t, 9, 9, 9},
                             {"_matmult_3x3vec", _matmult_3x3vec, reference::matmult_3x3vec, 9, 3, 3},
                             {"_matmult_3x3tvec", _matmult_3x3tvec, reference::matmult_3x3tvec, 9, 3, 3},
                             {"_vecoutp_3", _vecoutp_3, reference::vecoutp_3, 3, 3, 9},
                             {"_veccrossp_3", _veccrossp_3, reference::veccrossp_3, 3, 3, 3}};

// Besides the usual data: everything about one exponent, so that terms and results meet the limits of single
// precision, and values that nearly cancel.
void fill(support::Random& random, float* data, std::size_t count) {
  const std::int32_t dice = random.between(0, 5);
  if (dice < 3) {
    support::fill(random, OX_F32, data, count, support::any_kind(random));
  } else if (dice == 3) {
    const std::int32_t exponent = random.between(-149, 125);
    support::fill_exponents(random, OX_F32, data, count, exponent, exponent + 2);
  } else if (dice == 4) {
    const std::int32_t exponent = random.between(-80, -45);
    support::fill_exponents(random, OX_F32, data, count, exponent, exponent + 1);
  } else {
    support::fill_exponents(random, OX_F32, data, count, 0, 0);
    for (std::size_t i = 1; i < count; ++i) {
      data[i] = random.one_in(2) ? data[0] : -data[0];
      if (random.one_in(2)) data[i] = std::nextafter(data[i], 0.0f);
    }
  }
}

float* place(support::GuardedPages& pages, support::Random& random, std::size_t floats) {
  return static_cast<float*>(
      static_cast<void*>(pages.place(floats * sizeof(float), support::any_placement(random, OX_F32))));
}

TEST(Fixed3, MatchesPlainLoops) {
  support::Random random(4101);
  support::GuardedPages left(64), right(64), to(64);
  for (const Routine& routine : kRoutines) {
    for (int i = 0; i < support::scaled(60000); ++i) {
      float* const x = place(left, random, routine.first);
      float* const y = place(right, random, routine.second);
      float* const out = place(to, random, routine.output);
      fill(random, x, routine.first);
      fill(random, y, routine.second);
      const support::Unchanged x_kept(x, routine.first * sizeof(float)), y_kept(y, routine.second * sizeof(float));
      float expected[9];
      routine.library(x, y, out);
      routine.reference(x, y, expected);
      ASSERT_TRUE(same_values(OX_F32, out, expected, routine.output)) << routine.name << ' ' << random << i;
      ASSERT_TRUE(to.intact()) << routine.name << ' ' << random << i;
      ASSERT_TRUE(x_kept.check() && y_kept.check()) << routine.name << ' ' << random << i;
    }
  }
}

TEST(Fixed3, TakesOneArrayForBothInputs) {
  support::Random random(4102);
  for (const Routine& routine : kRoutines) {
    for (int i = 0; i < support::scaled(1000); ++i) {
      float both[9], out[9] = {}, expected[9] = {};
      fill(random, both, 9);
      routine.library(both, both, out);
      routine.reference(both, both, expected);
      ASSERT_TRUE(same_values(OX_F32, out, expected, 9)) << routine.name << ' ' << random << i;
    }
  }
}

TEST(Fixed3, MatchesPlainDotProductAndDeterminant) {
  support::Random random(4103);
  support::GuardedPages left(64), right(64);
  for (int i = 0; i < support::scaled(200000); ++i) {
    float* const A = place(left, random, 9);
    fill(random, A, 9);
    const float det = _matdet_3x3(A);
    const float expected_det = reference::matdet_3x3(A);
    ASSERT_TRUE(same_values(OX_F32, &det, &expected_det, 1)) << random << i;
    float* const u = place(left, random, 3);
    float* const v = place(right, random, 3);
    fill(random, u, 3);
    fill(random, v, 3);
    const float dot = _vecdotp_3(u, v);
    const float expected_dot = reference::vecdotp_3(u, v);
    ASSERT_TRUE(same_values(OX_F32, &dot, &expected_dot, 1)) << random << i;
  }
}

TEST(Fixed3, NegatesEveryBitPattern) {
  support::Random random(4104);
  support::GuardedPages pages(64);
  for (int i = 0; i < support::scaled(60000); ++i) {
    float* const A = place(pages, random, 9);
    support::fill(random, OX_F32, A, 9, Data::kHostile);
    float expected[9];
    std::memcpy(expected, A, sizeof expected);
    reference::matneg_3x3(expected);
    _matneg_3x3(A);
    ASSERT_TRUE(same_bytes(A, expected, sizeof expected)) << random << i;
    ASSERT_TRUE(pages.intact()) << random << i;
  }
}

// ---------------------------------------------------------------------------------------------- by name

const float kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
const float kSome[9] = {1.5f, -2.25f, 3e10f, 4.1f, 5, -6e-10f, 7, 8.875f, 9};

TEST(MatMult3x3, KeepsAMatrixTimesTheIdentity) {
  float C[9] = {};
  _matmult_3x3(kSome, kIdentity, C);
  EXPECT_TRUE(same_bytes(C, kSome, sizeof C));
}

TEST(MatMult3x3, MultipliesRowsByColumns) {
  const float A[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9}, B[9] = {10, 11, 12, 13, 14, 15, 16, 17, 18};
  const float expected[9] = {84, 90, 96, 201, 216, 231, 318, 342, 366};
  float C[9] = {};
  _matmult_3x3(A, B, C);
  EXPECT_TRUE(same_bytes(C, expected, sizeof C));
}

TEST(MatMult3x3t, GivesASymmetricMatrixForEqualFactors) {
  support::Random random(4105);
  for (int i = 0; i < 200; ++i) {
    float A[9], C[9];
    support::fill(random, OX_F32, A, 9, Data::kTame);
    _matmult_3x3t(A, A, C);
    EXPECT_EQ(C[1], C[3]);
    EXPECT_EQ(C[2], C[6]);
    EXPECT_EQ(C[5], C[7]);
  }
  const float A[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  const float expected[9] = {14, 32, 50, 32, 77, 122, 50, 122, 194};
  float C[9] = {};
  _matmult_3x3t(A, A, C);
  EXPECT_TRUE(same_bytes(C, expected, sizeof C));
}

TEST(MatMult3x3tVec, EqualsTheProductWithTheTranspose) {
  support::Random random(4106);
  for (int i = 0; i < 200; ++i) {
    float A[9], v[3], w[3], expected[3];
    support::fill(random, OX_F32, A, 9, Data::kTame);
    support::fill(random, OX_F32, v, 3, Data::kTame);
    const float transposed[9] = {A[0], A[3], A[6], A[1], A[4], A[7], A[2], A[5], A[8]};
    _matmult_3x3tvec(A, v, w);
    _matmult_3x3vec(transposed, v, expected);
    EXPECT_TRUE(same_bytes(w, expected, sizeof w)) << random << i;
  }
}

TEST(MatMult3x3Vec, MultipliesRowsByTheVector) {
  const float A[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9}, v[3] = {10, 20, 30};
  const float expected[3] = {140, 320, 500};
  float w[3] = {};
  _matmult_3x3vec(A, v, w);
  EXPECT_TRUE(same_bytes(w, expected, sizeof w));
}

TEST(MatDet3x3, IsOneForTheIdentity) { EXPECT_EQ(_matdet_3x3(kIdentity), 1.0f); }

TEST(MatDet3x3, IsZeroOfEitherSignForTwoEqualRows) {
  support::Random random(4107);
  for (int i = 0; i < 300; ++i) {
    float A[9];
    for (float& element : A) element = static_cast<float>(random.between(-9, 9));
    const std::size_t from = random.below(3);
    const std::size_t to = (from + 1 + random.below(2)) % 3;
    std::memcpy(A + 3 * to, A + 3 * from, 3 * sizeof(float));
    EXPECT_EQ(_matdet_3x3(A), 0.0f) << random << i;
  }
}

TEST(MatDet3x3, FollowsTheSignOfThePermutation) {
  const float swapped[9] = {0, 1, 0, 1, 0, 0, 0, 0, 1};
  EXPECT_EQ(_matdet_3x3(swapped), -1.0f);
  const float A[9] = {2, 0, 1, 1, 3, 2, 1, 1, 4};
  EXPECT_EQ(_matdet_3x3(A), 18.0f);
}

TEST(MatDet3x3, StaysInSinglePrecision) {
  // 4097 * 4097 = 16785409 is rounded to 16785408; in double precision 1 would be left.
  const float A[9] = {1, 0, 0, 0, 4097, 16785408, 0, 1, 4097};
  EXPECT_EQ(_matdet_3x3(A), 0.0f);
}

TEST(MatDet3x3, AddsTheThirdTermLast) {
  // All three cofactors are 1. The 1 is lost beside 2^24 before -2^24 comes.
  const float A[9] = {1, 16777216, -16777216, 1, -1, 0, 0, 1, -1};
  EXPECT_EQ(_matdet_3x3(A), 0.0f);
  const float B[9] = {16777216, -16777216, 1, 1, -1, 0, 0, 1, -1};
  EXPECT_EQ(_matdet_3x3(B), 1.0f);
}

TEST(VecCross3, IsRightHandedAndZeroForAVectorWithItself) {
  const float x[3] = {1, 0, 0}, y[3] = {0, 1, 0}, z[3] = {0, 0, 1};
  float w[3] = {9, 9, 9};
  _veccrossp_3(x, y, w);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(w[i], z[i]) << i;
  _veccrossp_3(y, z, w);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(w[i], x[i]) << i;
  const float u[3] = {1.1f, -2.7f, 1e20f};
  _veccrossp_3(u, u, w);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(w[i], 0.0f) << i;
}

TEST(VecCross3, FormsDifferencesInDoublePrecision) {
  const float u[3] = {4097, 16785408, 0}, v[3] = {1, 4097, 0};
  float w[3] = {};
  _veccrossp_3(u, v, w);
  EXPECT_EQ(w[2], 1.0f);
}

TEST(VecDot3, SumsInDoublePrecision) {
  const float u[3] = {16777216, 1, -16777216}, ones[3] = {1, 1, 1};
  EXPECT_EQ(_vecdotp_3(u, ones), 1.0f);
}

TEST(VecDot3, AddsInRisingOrder) {
  // 2^27 * 2^26 = 2^53, beside which a 1 is lost even in double precision.
  const float large = 134217728, half = 67108864;
  const float lost_first[3] = {1, large, -large}, lost_second[3] = {large, 1, -large},
              kept[3] = {large, -large, 1};
  const float v_first[3] = {1, half, half}, v_second[3] = {half, 1, half}, v_kept[3] = {half, half, 1};
  EXPECT_EQ(_vecdotp_3(lost_first, v_first), 0.0f);
  EXPECT_EQ(_vecdotp_3(lost_second, v_second), 0.0f);
  EXPECT_EQ(_vecdotp_3(kept, v_kept), 1.0f);
}

TEST(VecOuter3, MultipliesEachByEach) {
  const float u[3] = {1, 2, 3}, v[3] = {4, 5, 6};
  const float expected[9] = {4, 5, 6, 8, 10, 12, 12, 15, 18};
  float C[9] = {};
  _vecoutp_3(u, v, C);
  EXPECT_TRUE(same_bytes(C, expected, sizeof C));
}

TEST(VecOuter3, KeepsSubnormalProducts) {
  const float u[3] = {1e-20f, 1e-38f, 1e-45f}, v[3] = {1e-20f, 0.25f, 0.75f};
  float C[9] = {}, expected[9];
  _vecoutp_3(u, v, C);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) expected[3 * r + c] = u[r] * v[c];
  EXPECT_TRUE(same_bytes(C, expected, sizeof C));
  EXPECT_NE(C[0], 0.0f);
  EXPECT_NE(C[8], 0.0f);
}

TEST(MatNeg3x3, RestoresTheMatrixWhenAppliedTwice) {
  std::uint32_t bits[9] = {0x00000000u, 0x80000000u, 0x7FC12345u, 0xFF812345u, 0x7F800000u,
                           0x00000001u, 0x3F800000u, 0xFF7FFFFFu, 0x7FFFFFFFu};
  float A[9], before[9];
  std::memcpy(A, bits, sizeof A);
  std::memcpy(before, bits, sizeof before);
  _matneg_3x3(A);
  for (std::uint32_t& word : bits) word ^= 0x80000000u;
  EXPECT_TRUE(same_bytes(A, bits, sizeof A));
  _matneg_3x3(A);
  EXPECT_TRUE(same_bytes(A, before, sizeof A));
}

}  // namespace
