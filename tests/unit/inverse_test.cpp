// SPDX-License-Identifier: MIT
#include "support.h"

namespace {

using support::Data;
using support::Filled;
using support::header;
using support::plain;
using support::same_bytes;
using support::same_values;

constexpr std::int32_t kMost = 40;

std::size_t square(std::int32_t n) { return static_cast<std::size_t>(n) * static_cast<std::size_t>(n); }

void fill_square(support::Random& random, float* data, std::int32_t n, Data kind) {
  support::fill(random, OX_F32, data, square(n), kind);
}

// The library and the reference side by side. The results of singular matrices depend on the work area, so
// both are first brought to one known state: an inverse of the largest size writes every row and column of
// it, and the zero at its corner makes an exchange write all of the exchange row.
class Inverters {
 public:
  explicit Inverters(std::uint64_t seed) : random(seed), source_(square(kMost)), result_(square(kMost)) {
    std::vector<float> source(square(kMost)), by_library(square(kMost)), by_reference(square(kMost));
    fill_square(random, source.data(), kMost, Data::kTame);
    source[0] = 0.0f;
    const ox_mat_t src = header(OX_F32, kMost, kMost, source.data());
    ox_mat_t dst = header(OX_F32, kMost, kMost, by_library.data());
    ox_mat_inv(&src, &dst);
    reference_.inv(plain(src), plain(dst, by_reference.data()));
  }

  // Inverts the given matrix with both.
  testing::AssertionResult agree(const float* elements, std::int32_t n) {
    std::memcpy(source_.data(), elements, square(n) * sizeof(float));
    const ox_mat_t src = header(OX_F32, n, n, source_.data());
    ox_mat_t dst = header(OX_F32, n, n, result_.data());
    return agree(src, dst, result_.data(), result_.size() * sizeof(float));
  }

  // The destination lies in the memory given, and the source may.
  testing::AssertionResult agree(const ox_mat_t& src, ox_mat_t& dst, void* memory, std::size_t bytes) {
    support::Twin expected(memory, bytes);
    const bool source_inside = src.data >= memory && src.data < static_cast<unsigned char*>(memory) + bytes;
    const std::int32_t should_be = reference_.inv(source_inside ? plain(src, expected.at(src.data)) : plain(src),
                                                  plain(dst, expected.at(dst.data)));
    const std::int32_t status = ox_mat_inv(&src, &dst);
    if (status != should_be)
      return testing::AssertionFailure() << "returned " << status << ", expected " << should_be << ' ' << random;
    return same_values(OX_F32, memory, expected.data(), bytes / sizeof(float)) << random << "n " << src.rows;
  }

  float result(std::size_t i) const { return result_[i]; }

  support::Random random;

 private:
  reference::Inverter reference_;
  std::vector<float> source_, result_;
};

std::vector<float> inverse_of(std::int32_t n, std::vector<float> elements) {
  const Filled<float> src(OX_F32, n, n, std::move(elements));
  Filled<float> dst(OX_F32, n, n, std::vector<float>(square(n), 9));
  EXPECT_EQ(ox_mat_inv(&src.m, &dst.m), 0);
  return dst.values;
}

// Before main and so before any test: what the work area holds when the library has just been loaded.
struct FirstCalls {
  float inverse[2] = {};
  FirstCalls() {
    float zero = 0.0f;
    const ox_mat_t src = header(OX_F32, 1, 1, &zero);
    for (float& result : inverse) {
      ox_mat_t dst = header(OX_F32, 1, 1, &result);
      ox_mat_inv(&src, &dst);
    }
  }
};
const FirstCalls kFirstCalls;

TEST(MatInv, StartsWithAClearedWorkArea) {
  // The zero 1 x 1 matrix takes the row behind it as pivot row: 0 * (1 / 0). The exchange leaves the 1 of the
  // identity there, and a second call meets 1 * (1 / 0).
  EXPECT_TRUE(std::isnan(kFirstCalls.inverse[0]));
  EXPECT_EQ(kFirstCalls.inverse[1], std::numeric_limits<float>::infinity());
}

// ---------------------------------------------------------------------------------- regular matrices

TEST(MatInv, InvertsSmallIntegerMatricesExactly) {
  EXPECT_EQ(inverse_of(2, {2, 0, 0, 4}), (std::vector<float>{0.5f, 0, 0, 0.25f}));
  EXPECT_EQ(inverse_of(2, {1, 2, 3, 4}), (std::vector<float>{-2, 1, 1.5f, -0.5f}));
  EXPECT_EQ(inverse_of(3, {1, 2, 3, 0, 1, 4, 5, 6, 0}), (std::vector<float>{-24, 18, 5, 20, -15, -4, -5, 4, 1}));
}

TEST(MatInv, InvertsOneByOneByTheReciprocal) {
  for (const float a : {1.0f, -1.0f, 2.0f, 3.0f, -7.5f, 1e-30f, 1e30f, 1e-44f, std::numeric_limits<float>::max()})
    EXPECT_EQ(inverse_of(1, {a})[0], static_cast<float>(1.0 / static_cast<double>(a))) << a;
}

TEST(MatInv, KeepsIdentityMatricesBitForBit) {
  for (std::int32_t n = 1; n <= kMost; ++n) {
    std::vector<float> identity(square(n), 0.0f);
    for (std::size_t i = 0; i < square(n); i += static_cast<std::size_t>(n) + 1) identity[i] = 1.0f;
    const std::vector<float> inverse = inverse_of(n, identity);
    EXPECT_TRUE(same_bytes(inverse.data(), identity.data(), square(n) * sizeof(float))) << n;
  }
}

TEST(MatInv, ExchangesRowsWhereThePivotIsZero) {
  EXPECT_EQ(inverse_of(2, {0, 1, 1, 0}), (std::vector<float>{0, 1, 1, 0}));
  EXPECT_EQ(inverse_of(2, {-0.0f, 2, 4, 0}), (std::vector<float>{0, 0.25f, 0.5f, 0}));
  EXPECT_EQ(inverse_of(3, {1, 0, 0, 0, 0, 1, 0, 1, 0}), (std::vector<float>{1, 0, 0, 0, 0, 1, 0, 1, 0}));
}

TEST(MatInv, FallsBackToTheLastRowAsPivotRow) {
  // Row 1 is tested and rejected, row 2 is taken.
  EXPECT_EQ(inverse_of(3, {0, 1, 0, 0, 0, 1, 5, 0, 0}), (std::vector<float>{0, 0, 0.2f, 1, 0, 0, 0, 1, 0}));
  Inverters both(4201);
  for (int i = 0; i < 50; ++i) {
    float m[9];
    fill_square(both.random, m, 3, Data::kTame);
    m[0] = m[3] = 0.0f;
    m[6] = 5.0f;
    EXPECT_TRUE(both.agree(m, 3));
  }
}

TEST(MatInv, TakesTheFirstNonZeroRowNotTheLargest) {
  Inverters both(4202);
  // 1e-20 as pivot swamps what the other rows hold: a search by size would give another matrix.
  const float m[16] = {0, 1, 2, 3, 1e-20f, 4, 5, 7, 1e10f, 1, 3, 1, 5, 2, 2, 9};
  EXPECT_TRUE(both.agree(m, 4));
  const float with_tiny_pivot[4] = {both.result(0), both.result(4), both.result(8), both.result(12)};
  // The same with the largest row put first, whose column in the inverse then is the first one.
  const float by_size[16] = {1e10f, 1, 3, 1, 1e-20f, 4, 5, 7, 0, 1, 2, 3, 5, 2, 2, 9};
  EXPECT_TRUE(both.agree(by_size, 4));
  const float with_large_pivot[4] = {both.result(2), both.result(6), both.result(10), both.result(14)};
  EXPECT_FALSE(same_values(OX_F32, with_tiny_pivot, with_large_pivot, 4));
}

TEST(MatInv, UsesTinyPivotsAsTheyAre) {
  Inverters both(4203);
  for (const float pivot : {1e-30f, 1e-40f, 1e-45f, -1e-45f}) {
    const float m[9] = {pivot, 1, 2, 3, 4, 5, 6, 7, 9};
    EXPECT_TRUE(both.agree(m, 3)) << pivot;
  }
}

TEST(MatInv, MatchesPlainLoopForEverySize) {
  Inverters both(4204);
  std::vector<float> m(square(kMost));
  for (std::int32_t n = 1; n <= kMost; ++n) {
    for (int i = 0; i < 1 + support::scaled(12); ++i) {
      fill_square(both.random, m.data(), n, i % 4 == 3 ? Data::kSprinkled : Data::kTame);
      ASSERT_TRUE(both.agree(m.data(), n));
    }
  }
}

// Zeros anywhere make exchanges at every column and, where the last pivot is zero, let earlier calls show.
TEST(MatInv, MatchesPlainLoopForSparseAndSingularMatricesInAnyOrderOfSizes) {
  Inverters both(4205);
  std::vector<float> m(square(kMost));
  for (int i = 0; i < support::scaled(20000); ++i) {
    const std::int32_t n = both.random.one_in(4) ? both.random.between(1, kMost) : both.random.between(1, 6);
    fill_square(both.random, m.data(), n, Data::kTame);
    const std::int32_t sparseness = both.random.between(1, 6);
    for (std::size_t k = 0; k < square(n); ++k) {
      if (both.random.one_in(sparseness)) m[k] = both.random.one_in(4) ? -0.0f : 0.0f;
      // Small integers make later pivots come out as exact zeros.
      if (i % 3 == 0 && m[k] != 0.0f) m[k] = static_cast<float>(both.random.between(-2, 2));
    }
    ASSERT_TRUE(both.agree(m.data(), n)) << i;
  }
}

TEST(MatInv, MatchesPlainLoopForHostileData) {
  Inverters both(4206);
  std::vector<float> m(square(kMost));
  for (int i = 0; i < support::scaled(20000); ++i) {
    const std::int32_t n = both.random.between(1, 8);
    fill_square(both.random, m.data(), n, support::any_kind(both.random));
    if (both.random.one_in(3))
      support::fill_exponents(both.random, OX_F32, m.data(), square(n), -149, both.random.between(-140, 127));
    ASSERT_TRUE(both.agree(m.data(), n)) << i;
  }
}

// --------------------------------------------------------------------------------- singular matrices

TEST(MatInv, ReportsNothingForZeroMatrices) {
  for (std::int32_t n = 2; n <= kMost; ++n) {
    for (const float value : inverse_of(n, std::vector<float>(square(n), 0.0f)))
      EXPECT_FALSE(std::isfinite(value)) << n;
  }
}

// The zero 1 x 1 matrix takes row 1 of the work area as pivot row, where an earlier call left what it left.
TEST(MatInv, MayGiveAFiniteInverseOfAZeroOneByOneAfterAnEarlierCall) {
  // 49 * (1 / 49) is 1 - 2^-53, so row 1 is left as (2^-53, 1, ...).
  inverse_of(2, {49, 0, 1, 1});
  EXPECT_EQ(inverse_of(1, {0})[0], 9007199254740992.0f);
  // After the exchange it is (0, 1).
  EXPECT_EQ(inverse_of(1, {0})[0], std::numeric_limits<float>::infinity());
}

TEST(MatInv, LetsEarlierCallsShowWhereTheLastPivotIsZero) {
  const float singular[4] = {1, 1, 1, 1};
  Inverters first(4208);
  EXPECT_TRUE(first.agree(singular, 2));
  const float after_first[4] = {first.result(0), first.result(1), first.result(2), first.result(3)};
  Inverters second(4209);
  EXPECT_TRUE(second.agree(singular, 2));
  const float after_second[4] = {second.result(0), second.result(1), second.result(2), second.result(3)};
  EXPECT_FALSE(same_values(OX_F32, after_first, after_second, 4));
}

TEST(MatInv, MeetsTheExchangeRowItselfWhereTheLastOfFortyPivotsIsZero) {
  Inverters both(4210);
  std::vector<float> m(square(kMost), 0.0f);
  for (std::size_t i = 0; i + 1 < kMost; ++i) m[i * kMost + i] = 2.0f;
  EXPECT_TRUE(both.agree(m.data(), kMost));
  // The exchange row is then seen by the next exchange of full width.
  EXPECT_TRUE(both.agree(m.data(), kMost));
  fill_square(both.random, m.data(), kMost, Data::kTame);
  for (std::size_t i = 0; i < kMost; ++i) m[(kMost - 1) * kMost + i] = m[i];  // equal rows
  EXPECT_TRUE(both.agree(m.data(), kMost));
}

// ------------------------------------------------------------------------------- headers and storage

TEST(MatInv, TakesFortyAndRefusesFortyOne) {
  std::vector<float> source(square(41), 0.0f), target(square(41), 9.0f);
  for (std::size_t i = 0; i < 41; ++i) source[i * 41] = 1.0f;
  const ox_mat_t most = header(OX_F32, 40, 40, source.data());
  ox_mat_t dst = header(OX_F32, 40, 40, target.data());
  EXPECT_EQ(ox_mat_inv(&most, &dst), 0);
  EXPECT_NE(target[0], 9.0f);
  const support::Unchanged untouched(target.data(), target.size() * sizeof(float));
  for (const std::int32_t n : {41, 42, 1000, std::numeric_limits<std::int32_t>::max()}) {
    const ox_mat_t src = header(OX_F32, n, 41, source.data());
    ox_mat_t too_large = header(OX_F32, n, 41, target.data());
    EXPECT_EQ(ox_mat_inv(&src, &too_large), -1) << n;
    EXPECT_TRUE(untouched.check()) << n;
  }
}

TEST(MatInv, RefusesEverythingButEqualHeadersOfSingleChannelF32) {
  float source[64] = {1, 0, 0, 1}, target[64];
  std::fill(std::begin(target), std::end(target), 9.0f);
  const support::Unchanged untouched(target, sizeof target);
  const auto refused = [&](std::uint32_t src_type, std::int32_t src_rows, std::int32_t src_cols,
                           std::uint32_t dst_type, std::int32_t dst_rows, std::int32_t dst_cols) {
    const ox_mat_t src = header(src_type, src_rows, src_cols, source);
    ox_mat_t dst = header(dst_type, dst_rows, dst_cols, target);
    EXPECT_EQ(ox_mat_inv(&src, &dst), -1);
    EXPECT_TRUE(untouched.check());
  };
  for (const std::uint32_t type : {OX_U8, OX_S8, OX_U16, OX_S16, OX_S32, OX_S64, OX_F64, OX_TYPE(OX_F32, 2),
                                   OX_TYPE(OX_F32, 32), OX_F32 | 0x100u, OX_F32 | 0x80000000u}) {
    SCOPED_TRACE(type);
    refused(type, 2, 2, type, 2, 2);
    refused(OX_F32, 2, 2, type, 2, 2);
    refused(type, 2, 2, OX_F32, 2, 2);
    refused(type, 0, 0, type, 0, 0);
  }
  refused(OX_F32, 2, 2, OX_F32, 3, 2);
  refused(OX_F32, 3, 2, OX_F32, 2, 2);
  refused(OX_F32, 2, 2, OX_F32, 2, 3);
  refused(OX_F32, 2, 3, OX_F32, 2, 2);
  refused(OX_F32, 0, 2, OX_F32, 0, 3);
  refused(OX_F32, 0, 2, OX_F32, -1, 2);
}

TEST(MatInv, ReturnsZeroAndWritesNothingWithoutRows) {
  float source[4] = {1, 2, 3, 4}, target[4] = {9, 9, 9, 9};
  const support::Unchanged untouched(target, sizeof target);
  for (const std::int32_t n : {0, -1, -40, -41, std::numeric_limits<std::int32_t>::min()}) {
    const ox_mat_t src = header(OX_F32, n, 2, source);
    ox_mat_t dst = header(OX_F32, n, 2, target);
    EXPECT_EQ(ox_mat_inv(&src, &dst), 0) << n;
    EXPECT_TRUE(untouched.check()) << n;
  }
}

TEST(MatInv, LeavesTheWorkAreaAloneWhenItRefusesOrHasNothingToDo) {
  Inverters both(4211);
  std::vector<float> large(square(41), 3.0f);
  const ox_mat_t src = header(OX_F32, 41, 41, large.data());
  ox_mat_t dst = src;
  EXPECT_EQ(ox_mat_inv(&src, &dst), -1);
  const ox_mat_t wide = header(OX_F32, 5, 5, large.data());
  ox_mat_t narrow = header(OX_F32, 5, 4, large.data());
  EXPECT_EQ(ox_mat_inv(&wide, &narrow), -1);
  const ox_mat_t other_type = header(OX_S32, 5, 5, large.data());
  ox_mat_t other_dst = other_type;
  EXPECT_EQ(ox_mat_inv(&other_type, &other_dst), -1);
  const ox_mat_t empty = header(OX_F32, 0, 5, large.data());
  ox_mat_t empty_dst = empty;
  EXPECT_EQ(ox_mat_inv(&empty, &empty_dst), 0);
  // The reference has seen none of these calls; matrices without a last pivot show the rows behind them.
  for (std::int32_t n = 1; n < kMost; ++n) {
    std::vector<float> singular(square(n), 0.0f);
    for (std::size_t i = 0; i + 1 < static_cast<std::size_t>(n); ++i)
      singular[i * static_cast<std::size_t>(n) + i] = 1.0f;
    EXPECT_TRUE(both.agree(singular.data(), n)) << n;
  }
}

TEST(MatInv, ReadsAndWritesRowsOfNFloatsWhateverTheColumns) {
  Inverters both(4212);
  for (const std::int32_t cols : {-5, 0, 1, 2, 5, 41, 1000}) {
    float source[16], target[16];
    fill_square(both.random, source, 4, Data::kTame);
    fill_square(both.random, target, 4, Data::kTame);
    const ox_mat_t src = header(OX_F32, 3, cols, source);
    ox_mat_t dst = header(OX_F32, 3, cols, target);
    EXPECT_TRUE(both.agree(src, dst, target, sizeof target)) << cols;
  }
}

TEST(MatInv, ReadsAndWritesPackedRowsWhateverTheSteps) {
  Filled<float> src(OX_F32, 2, 2, {1, 2, 3, 4, 50, 60});
  Filled<float> dst(OX_F32, 2, 2, {9, 9, 9, 9, 9, 9});
  src.m.step = 12;
  dst.m.step = 16;
  EXPECT_EQ(ox_mat_inv(&src.m, &dst.m), 0);
  EXPECT_EQ(dst.values, (std::vector<float>{-2, 1, 1.5f, -0.5f, 9, 9}));
}

TEST(MatInv, WorksInPlaceAndOnOverlappingMatrices) {
  Inverters both(4213);
  std::vector<float> memory(3 * square(12));
  for (std::int32_t n = 1; n <= 12; ++n) {
    const auto reach = static_cast<std::int32_t>(square(n));
    for (std::int32_t distance = -reach; distance <= reach; ++distance) {
      support::fill(both.random, OX_F32, memory.data(), memory.size(), Data::kTame);
      float* const source = memory.data() + square(12);
      const ox_mat_t src = header(OX_F32, n, n, source);
      ox_mat_t dst = header(OX_F32, n, n, source + distance);
      ASSERT_TRUE(both.agree(src, dst, memory.data(), memory.size() * sizeof(float)))
          << "destination " << distance << " floats behind the source";
    }
  }
}

TEST(MatInv, TouchesNothingBesideItsOperands) {
  Inverters both(4214);
  support::GuardedPages from(8192), to(8192);
  for (std::int32_t n = 1; n <= kMost; ++n) {
    for (const support::Placement::Kind kind :
         {support::Placement::kAtStart, support::Placement::kAtEnd, support::Placement::kInside}) {
      const support::Placement where = {kind, 4 * both.random.below(16)};
      auto* const source = static_cast<float*>(static_cast<void*>(from.place(square(n) * sizeof(float), where)));
      auto* const target = static_cast<float*>(static_cast<void*>(to.place(square(n) * sizeof(float), where)));
      fill_square(both.random, source, n, Data::kTame);
      const support::Unchanged source_kept(source, square(n) * sizeof(float));
      const ox_mat_t src = header(OX_F32, n, n, source);
      ox_mat_t dst = header(OX_F32, n, n, target);
      ASSERT_TRUE(both.agree(src, dst, target, square(n) * sizeof(float)));
      ASSERT_TRUE(source_kept.check()) << n;
      ASSERT_TRUE(to.intact()) << n;
    }
  }
}

}  // namespace
