// SPDX-License-Identifier: MIT
#include "support.h"

namespace {

using support::Data;
using support::Filled;
using support::header;
using support::Placement;
using support::plain;
using support::same_bytes;
using support::same_values;

const std::uint32_t kForms[] = {0, OX_MAT_TRANSPOSE_A, OX_MAT_TRANSPOSE_B};

// Factors and a destination of one product, each beside memory that must not be touched.
template <class D>
class Product {
 public:
  using T = typename D::Scalar;

  Product(support::Random& random, std::int32_t most)
      : random_(random), left_(bytes(most, most)), right_(bytes(most, most)), to_(bytes(most, most)) {}

  void lay(std::int32_t m, std::int32_t n, std::int32_t k, std::uint32_t flags) {
    m_ = m, n_ = n, k_ = k, flags_ = flags;
    const std::uint32_t type = support::with_high_bits(random_, D::kType);
    const bool a_transposed = (flags & OX_MAT_TRANSPOSE_A) != 0;
    const bool b_transposed = !a_transposed && (flags & OX_MAT_TRANSPOSE_B) != 0;
    a = header(type, a_transposed ? k : m, a_transposed ? m : k, left_.place(bytes(m, k), anywhere()));
    b = header(type, b_transposed ? n : k, b_transposed ? k : n, right_.place(bytes(k, n), anywhere()));
    dst = header(type, m, n, to_.place(bytes(m, n), anywhere()));
    // Nobody may look at them.
    a.step = random_.between(-1000, 1000);
    b.step = random_.between(-1000, 1000);
    dst.step = random_.between(-1000, 1000);
    support::fill(random_, D::kType, elements(dst), count(m, n), Data::kHostile);
  }

  void fill(Data kind) {
    support::fill(random_, D::kType, elements(a), count(m_, k_), kind);
    support::fill(random_, D::kType, elements(b), count(k_, n_), kind);
  }

  testing::AssertionResult agrees() {
    support::Twin expected(dst.data, bytes(m_, n_));
    const support::Unchanged a_kept(a.data, bytes(m_, k_)), b_kept(b.data, bytes(k_, n_));
    ox_mat_mul(&a, &b, &dst, flags_);
    reference::mul(plain(a), plain(b), plain(dst, expected.at(dst.data)), flags_);
    const testing::AssertionResult values = same_values(D::kType, dst.data, expected.data(), count(m_, n_));
    const testing::AssertionResult beside = to_.intact();
    if (values && beside && a_kept.check() && b_kept.check()) return testing::AssertionSuccess();
    return testing::AssertionFailure() << values.message() << beside.message() << a_kept.check().message()
                                       << b_kept.check().message() << random_ << "m " << m_ << ", n " << n_
                                       << ", k " << k_ << ", flags " << flags_;
  }

  testing::AssertionResult agrees(std::int32_t m, std::int32_t n, std::int32_t k, std::uint32_t flags) {
    lay(m, n, k, flags);
    fill(support::any_kind(random_));
    return agrees();
  }

  static unsigned char* elements(const ox_mat_t& m) { return static_cast<unsigned char*>(m.data); }

  ox_mat_t a{}, b{}, dst{};

 private:
  static std::size_t count(std::int32_t rows, std::int32_t cols) {
    return static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols);
  }
  static std::size_t bytes(std::int32_t rows, std::int32_t cols) { return count(rows, cols) * sizeof(T); }
  Placement anywhere() { return support::any_placement(random_, D::kType); }

  support::Random& random_;
  support::GuardedPages left_, right_, to_;
  std::int32_t m_ = 0, n_ = 0, k_ = 0;
  std::uint32_t flags_ = 0;
};

template <class D>
class MatMulOfEveryDepth : public testing::Test {};
TYPED_TEST_SUITE(MatMulOfEveryDepth, support::EveryDepth, support::DepthName);

TYPED_TEST(MatMulOfEveryDepth, MatchesPlainLoopForAllSmallShapes) {
  support::Random random(3101);
  Product<TypeParam> product(random, 16);
  for (const std::uint32_t flags : kForms)
    for (std::int32_t m = 1; m <= 9; ++m)
      for (std::int32_t n = 1; n <= 9; ++n)
        for (std::int32_t k = 1; k <= 9; ++k) ASSERT_TRUE(product.agrees(m, n, k, flags));
}

TYPED_TEST(MatMulOfEveryDepth, MatchesPlainLoopAroundEveryLaneBoundary) {
  support::Random random(3102);
  Product<TypeParam> product(random, 160);
  for (const std::uint32_t flags : kForms) {
    for (std::int32_t n = 1; n <= support::last_lane_boundary<TypeParam>(); ++n) {
      // Each of the three sizes in turn walks over the boundaries.
      for (int i = 0; i < 1 + support::scaled(8); ++i) {
        ASSERT_TRUE(product.agrees(random.between(1, 9), n, random.between(1, 9), flags));
        ASSERT_TRUE(product.agrees(random.between(1, 9), random.between(1, 9), n, flags));
        ASSERT_TRUE(product.agrees(n, random.between(1, 9), random.between(1, 9), flags));
      }
    }
  }
}

TYPED_TEST(MatMulOfEveryDepth, MatchesPlainLoopForLargerShapes) {
  support::Random random(3103);
  Product<TypeParam> product(random, 160);
  for (const std::uint32_t flags : kForms) {
    for (int i = 0; i < support::scaled(48); ++i)
      ASSERT_TRUE(product.agrees(random.between(1, 70), random.between(1, 70), random.between(1, 70), flags));
    for (int i = 0; i < support::scaled(12); ++i)
      ASSERT_TRUE(
          product.agrees(random.between(64, 130), random.between(64, 130), random.between(64, 130), flags));
  }
}

TYPED_TEST(MatMulOfEveryDepth, MatchesPlainLoopForLongThinShapes) {
  support::Random random(3104);
  Product<TypeParam> product(random, 160);
  for (const std::uint32_t flags : kForms) {
    for (int i = 0; i < support::scaled(48); ++i) {
      ASSERT_TRUE(product.agrees(random.between(1, 5), random.between(1, 5), random.between(200, 1500), flags));
      ASSERT_TRUE(product.agrees(random.between(1, 5), random.between(200, 1500), random.between(1, 5), flags));
      ASSERT_TRUE(product.agrees(random.between(200, 1500), random.between(1, 5), random.between(1, 5), flags));
    }
  }
}

// What goes through a panel on the stack does so 14 KiB at a time: rows of one scalar, or of vectors of all widths.
TYPED_TEST(MatMulOfEveryDepth, MatchesPlainLoopAroundEveryPanelsEnd) {
  constexpr std::int32_t kSize = sizeof(typename TypeParam::Scalar);
  support::Random random(3106);
  Product<TypeParam> product(random, 180);
  for (const std::uint32_t flags : kForms)
    for (const std::int32_t row_bytes : {8, 16, 32, 64, 128, 192, 256})
      for (std::int32_t panels = 1; panels <= support::scaled(2); ++panels)
        for (std::int32_t past = -1; past <= 1; ++past)
          for (const std::int32_t m : {1, 3})
            for (const std::int32_t n : {1, 2, 3, 5, row_bytes / kSize})
              ASSERT_TRUE(product.agrees(m, n, panels * (14 * 1024 / row_bytes) + past, flags));
  // Rows of one or two whole vectors have a panel of their own, of 64 terms.
  for (const std::uint32_t flags : kForms)
    for (const std::int32_t row_bytes : {16, 32, 64, 128})
      for (std::int32_t k = 63; k <= 66; ++k)
        ASSERT_TRUE(product.agrees(random.between(1, 40), row_bytes / kSize, k, flags));
}

// Rows of b that are cache lines may be loaded from where they are when others are not.
TYPED_TEST(MatMulOfEveryDepth, MatchesPlainLoopForRowsOfWholeCacheLines) {
  constexpr std::int32_t kSize = sizeof(typename TypeParam::Scalar);
  support::Random random(3110);
  Product<TypeParam> product(random, 600);
  for (const std::int32_t row_bytes : {64, 128, 192, 256, 320})
    for (int i = 0; i < 1 + support::scaled(7); ++i)
      ASSERT_TRUE(product.agrees(random.between(31, 40), row_bytes / kSize, 32 * 1024 / row_bytes + i, 0));
}

// Factors of four rows may be spread beforehand, 14 KiB of vectors at a time.
TYPED_TEST(MatMulOfEveryDepth, MatchesPlainLoopWhereFactorsAreSpread) {
  support::Random random(3112);
  Product<TypeParam> product(random, 180);
  for (const std::uint32_t flags : {0u, std::uint32_t{OX_MAT_TRANSPOSE_A}})
    for (const std::int32_t n : {15, 16, 17, 24, 31, 32, 33, 48, 49, 64})
      for (const std::int32_t k : {4, 15, 16, 17, 223, 224, 225, 449})
        ASSERT_TRUE(product.agrees(random.between(3, 13), n, k, flags));
}

// Two terms of integers may be multiplied at a time, 48 or 104 terms in a panel of so many vectors of columns.
TYPED_TEST(MatMulOfEveryDepth, MatchesPlainLoopWhereTermsArePaired) {
  support::Random random(3113);
  Product<TypeParam> product(random, 240);
  for (const std::int32_t k : {4, 5, 31, 32, 33, 34, 47, 48, 49, 50, 53, 57, 63, 95, 97, 103, 104, 105, 106, 209})
    for (const std::int32_t n : {16, 64, 96, 128, 160})
      for (int i = 0; i < 1 + support::scaled(4); ++i)
        ASSERT_TRUE(product.agrees(random.between(16, 23), n + (i > 0 ? random.between(-3, 35) : 0), k, 0));
  // Terms that would leave few for the last of many panels, were they not shared out evenly.
  for (const std::int32_t k : {1059, 1105, 1106}) ASSERT_TRUE(product.agrees(16, 20, k, 0));
}

TYPED_TEST(MatMulOfEveryDepth, MultipliesEveryTwoExtremesByEveryTwo) {
  const std::vector<std::uint64_t>& special = support::special_bits(TypeParam::kType);
  const std::size_t count = special.size(), size = sizeof(typename TypeParam::Scalar);
  const std::size_t rows = count * count, cols = 2 * rows, terms = 33;
  support::Random random(3114);
  Product<TypeParam> product(random, 420);
  product.lay(static_cast<std::int32_t>(rows), static_cast<std::int32_t>(cols), terms, 0);
  const auto store = [&](unsigned char* at, std::size_t pair, bool second) {
    support::store_bits(TypeParam::kType, at, special[second ? pair % count : pair / count]);
  };
  for (std::size_t k = 0; k < terms; ++k) {
    for (std::size_t i = 0; i < rows; ++i) store(product.elements(product.a) + (i * terms + k) * size, i, k % 2 != 0);
    for (std::size_t j = 0; j < cols; ++j)
      store(product.elements(product.b) + (k * cols + j) * size, j % rows, k % 2 != 0);
  }
  ASSERT_TRUE(product.agrees());
}

TYPED_TEST(MatMulOfEveryDepth, MultipliesAMatrixByItself) {
  support::Random random(3105);
  Product<TypeParam> product(random, 40);
  for (std::int32_t n = 1; n <= 33; ++n) {
    for (const std::uint32_t flags : kForms) {
      product.lay(n, n, n, flags);
      product.fill(support::any_kind(random));
      product.b = product.a;
      ASSERT_TRUE(product.agrees());
    }
  }
}

TYPED_TEST(MatMulOfEveryDepth, WritesZerosAndReadsNothingWithoutInnerDimension) {
  using T = typename TypeParam::Scalar;
  for (const std::uint32_t flags : kForms) {
    for (const std::int32_t k : {0, -1, -5}) {
      for (std::int32_t m = 1; m <= 5; ++m) {
        for (std::int32_t n = 1; n <= 20; ++n) {
          const bool a_transposed = flags == OX_MAT_TRANSPOSE_A;
          const bool b_transposed = flags == OX_MAT_TRANSPOSE_B;
          const ox_mat_t a = header(TypeParam::kType, a_transposed ? k : m, a_transposed ? m : k, nullptr);
          const ox_mat_t b = header(TypeParam::kType, b_transposed ? n : k, b_transposed ? k : n, nullptr);
          std::vector<T> elements(static_cast<std::size_t>(m * n) + 1, T{9});
          std::vector<T> expected(elements.size(), T{0});
          expected.back() = T{9};
          ox_mat_t dst = header(TypeParam::kType, m, n, elements.data());
          ox_mat_mul(&a, &b, &dst, flags);
          // As bytes: the zeros of floats are positive.
          ASSERT_TRUE(same_bytes(elements.data(), expected.data(), elements.size() * sizeof(T)))
              << m << 'x' << n << 'x' << k << ", flags " << flags;
        }
      }
    }
  }
}

TYPED_TEST(MatMulOfEveryDepth, LeavesDstUntouchedWithoutRowsOrColumns) {
  unsigned char factors[256] = {1, 2, 3};
  unsigned char target[256];
  std::memset(target, 9, sizeof target);
  const support::Unchanged untouched(target, sizeof target);
  for (const std::uint32_t flags : kForms) {
    for (const std::int32_t k : {-1, 0, 1, 2}) {
      const std::int32_t shapes[][2] = {{0, 3}, {3, 0}, {0, 0}, {-1, 3}, {3, -1}, {-2, -2}};
      for (const auto& shape : shapes) {
        const std::int32_t m = shape[0], n = shape[1];
        const bool a_transposed = flags == OX_MAT_TRANSPOSE_A;
        const bool b_transposed = flags == OX_MAT_TRANSPOSE_B;
        const ox_mat_t a = header(TypeParam::kType, a_transposed ? k : m, a_transposed ? m : k, factors);
        const ox_mat_t b = header(TypeParam::kType, b_transposed ? n : k, b_transposed ? k : n, factors);
        ox_mat_t dst = header(TypeParam::kType, m, n, target);
        ox_mat_mul(&a, &b, &dst, flags);
        EXPECT_TRUE(untouched.check()) << m << 'x' << n << 'x' << k << ", flags " << flags;
        // Nor is anything read: here is nothing to be read.
        const ox_mat_t no_a = header(TypeParam::kType, a.rows, a.cols, nullptr);
        const ox_mat_t no_b = header(TypeParam::kType, b.rows, b.cols, nullptr);
        ox_mat_t no_dst = header(TypeParam::kType, m, n, nullptr);
        ox_mat_mul(&no_a, &no_b, &no_dst, flags);
      }
    }
  }
}

TYPED_TEST(MatMulOfEveryDepth, ObservesOnlyTheTwoTransposeBits) {
  support::Random random(3106);
  Product<TypeParam> product(random, 16);
  const struct {
    std::uint32_t given, meant;
  } flags[] = {{3, 1},           {4, 0},           {8, 0},           {16, 0}, {0xFFFFFFFCu, 0},
               {0xFFFFFFFDu, 1}, {0xFFFFFFFEu, 2}, {0xFFFFFFFFu, 1}, {18, 2}};
  for (const auto& flag : flags) {
    // Different sizes throughout, so that no other form fits.
    product.lay(3, 4, 5, flag.meant);
    product.fill(Data::kTame);
    support::Twin expected(product.dst.data, 12 * sizeof(typename TypeParam::Scalar));
    reference::mul(plain(product.a), plain(product.b), plain(product.dst, expected.at(product.dst.data)),
                   flag.meant);
    ox_mat_mul(&product.a, &product.b, &product.dst, flag.given);
    EXPECT_TRUE(same_values(TypeParam::kType, product.dst.data, expected.data(), 12)) << "flags " << flag.given;
  }
}

// ------------------------------------------------------------------------------------------- refusals

// A product that would be carried out if its headers were left as they are.
class MatMulRefusal : public testing::Test {
 protected:
  void refused(const ox_mat_t& a, const ox_mat_t& b, const ox_mat_t& dst, std::uint32_t flags, const char* why) {
    std::memset(target_, 9, sizeof target_);
    ox_mat_t destination = dst;
    ox_mat_mul(&a, &b, &destination, flags);
    unsigned char nines[sizeof target_];
    std::memset(nines, 9, sizeof nines);
    EXPECT_TRUE(same_bytes(target_, nines, sizeof nines)) << why << ", flags " << flags;
  }

  void accepted(const ox_mat_t& a, const ox_mat_t& b, const ox_mat_t& dst, std::uint32_t flags) {
    std::memset(target_, 9, sizeof target_);
    ox_mat_t destination = dst;
    ox_mat_mul(&a, &b, &destination, flags);
    EXPECT_NE(target_[0], 9) << "flags " << flags;
  }

  alignas(8) unsigned char left_[1024] = {};
  alignas(8) unsigned char right_[1024] = {};
  alignas(8) unsigned char target_[1024] = {};
};

TEST_F(MatMulRefusal, OfEveryShapeThatDoesNotFit) {
  for (const std::uint32_t flags : kForms) {
    const bool a_transposed = flags == OX_MAT_TRANSPOSE_A;
    const bool b_transposed = flags == OX_MAT_TRANSPOSE_B;
    const ox_mat_t a = header(OX_F32, a_transposed ? 4 : 2, a_transposed ? 2 : 4, left_);
    const ox_mat_t b = header(OX_F32, b_transposed ? 3 : 4, b_transposed ? 4 : 3, right_);
    const ox_mat_t dst = header(OX_F32, 2, 3, target_);
    accepted(a, b, dst, flags);
    for (const int by : {-1, 1}) {
      ox_mat_t other = a;
      other.rows += by;
      refused(other, b, dst, flags, "a has other rows");
      other = a;
      other.cols += by;
      refused(other, b, dst, flags, "a has other cols");
      other = b;
      other.rows += by;
      refused(a, other, dst, flags, "b has other rows");
      other = b;
      other.cols += by;
      refused(a, other, dst, flags, "b has other cols");
      other = dst;
      other.rows += by;
      refused(a, b, other, flags, "dst has other rows");
      other = dst;
      other.cols += by;
      refused(a, b, other, flags, "dst has other cols");
    }
    refused(a, b, header(OX_F32, 3, 2, target_), flags, "dst is mirrored");
  }
}

TEST_F(MatMulRefusal, OfTwoRowsByTwoRowsUnlessOneIsTransposed) {
  const ox_mat_t a = header(OX_F32, 2, 3, left_);
  const ox_mat_t b = header(OX_F32, 2, 3, right_);
  refused(a, b, header(OX_F32, 2, 3, target_), 0, "2x3 by 2x3");
  refused(a, b, header(OX_F32, 2, 2, target_), 0, "2x3 by 2x3");
  refused(a, b, header(OX_F32, 3, 3, target_), 0, "2x3 by 2x3");
  accepted(a, b, header(OX_F32, 2, 2, target_), OX_MAT_TRANSPOSE_B);
  accepted(a, b, header(OX_F32, 3, 3, target_), OX_MAT_TRANSPOSE_A);
}

TEST_F(MatMulRefusal, OfOperandsWhoseTypeWordsDifferInHighBits) {
  for (std::uint32_t bit = 8; bit < 32; ++bit) {
    const std::uint32_t other = OX_F32 | (1u << bit);
    const ox_mat_t a = header(OX_F32, 2, 2, left_), b = header(OX_F32, 2, 2, right_),
                   dst = header(OX_F32, 2, 2, target_);
    const ox_mat_t a2 = header(other, 2, 2, left_), b2 = header(other, 2, 2, right_),
                   dst2 = header(other, 2, 2, target_);
    refused(a2, b, dst, 0, "a differs");
    refused(a, b2, dst, 0, "b differs");
    refused(a, b, dst2, 0, "dst differs");
    refused(a2, b2, dst, 0, "dst differs from both");
    accepted(a2, b2, dst2, 0);
  }
}

TEST_F(MatMulRefusal, OfDifferentDepths) {
  for (std::uint32_t depth = 0; depth < 8; ++depth) {
    for (std::uint32_t other = 0; other < 8; ++other) {
      if (other == depth) continue;
      const ox_mat_t a = header(depth, 2, 2, left_), b = header(depth, 2, 2, right_),
                     dst = header(depth, 2, 2, target_);
      refused(header(other, 2, 2, left_), b, dst, 0, "a differs");
      refused(a, header(other, 2, 2, right_), dst, 0, "b differs");
      refused(a, b, header(other, 2, 2, target_), 0, "dst differs");
    }
  }
}

TEST_F(MatMulRefusal, OfSeveralChannels) {
  for (const int channels : {2, 3, 17, 32}) {
    const std::uint32_t several = OX_TYPE(OX_F32, channels);
    const ox_mat_t a = header(OX_F32, 2, 2, left_), b = header(OX_F32, 2, 2, right_),
                   dst = header(OX_F32, 2, 2, target_);
    const ox_mat_t a2 = header(several, 2, 2, left_), b2 = header(several, 2, 2, right_),
                   dst2 = header(several, 2, 2, target_);
    for (const std::uint32_t flags : kForms) {
      refused(a2, b2, dst2, flags, "all have several channels");
      refused(a2, b, dst, flags, "a has several channels");
      refused(a, b2, dst, flags, "b has several channels");
      refused(a, b, dst2, flags, "dst has several channels");
    }
  }
}

// ---------------------------------------------------------------------------------------------- by name

template <class T>
std::vector<T> product_of(std::uint32_t type, std::int32_t m, std::int32_t n, std::int32_t k, std::vector<T> left,
                          std::vector<T> right, std::uint32_t flags = 0) {
  const bool a_transposed = flags == OX_MAT_TRANSPOSE_A;
  const bool b_transposed = flags == OX_MAT_TRANSPOSE_B;
  const Filled<T> a(type, a_transposed ? k : m, a_transposed ? m : k, std::move(left));
  const Filled<T> b(type, b_transposed ? n : k, b_transposed ? k : n, std::move(right));
  Filled<T> dst(type, m, n, std::vector<T>(static_cast<std::size_t>(m * n), T{99}));
  ox_mat_mul(&a.m, &b.m, &dst.m, flags);
  return dst.values;
}

TEST(MatMul, MultipliesInAllThreeForms) {
  const std::vector<float> a = {1, 2, 3, 4, 5, 6};       // 2 x 3
  const std::vector<float> a_t = {1, 4, 2, 5, 3, 6};     // 3 x 2
  const std::vector<float> b = {7, 8, 9, 10, 11, 12};    // 3 x 2
  const std::vector<float> b_t = {7, 9, 11, 8, 10, 12};  // 2 x 3
  const std::vector<float> expected = {58, 64, 139, 154};
  EXPECT_EQ(product_of<float>(OX_F32, 2, 2, 3, a, b), expected);
  EXPECT_EQ(product_of<float>(OX_F32, 2, 2, 3, a_t, b, OX_MAT_TRANSPOSE_A), expected);
  EXPECT_EQ(product_of<float>(OX_F32, 2, 2, 3, a, b_t, OX_MAT_TRANSPOSE_B), expected);
}

TEST(MatMul, GivesOneScalarForRowTimesColumnAndAnOuterProductForColumnTimesRow) {
  EXPECT_EQ(product_of<std::int32_t>(OX_S32, 1, 1, 4, {1, 2, 3, 4}, {5, 6, 7, 8}),
            (std::vector<std::int32_t>{70}));
  EXPECT_EQ(product_of<std::int32_t>(OX_S32, 3, 2, 1, {1, 2, 3}, {10, 20}),
            (std::vector<std::int32_t>{10, 20, 20, 40, 30, 60}));
}

TEST(MatMul, WrapsProductsAndSums) {
  EXPECT_EQ(product_of<std::uint8_t>(OX_U8, 1, 1, 1, {200}, {2})[0], 144);
  EXPECT_EQ(product_of<std::int8_t>(OX_S8, 1, 1, 1, {100}, {2})[0], -56);
  EXPECT_EQ(product_of<std::int16_t>(OX_S16, 1, 1, 1, {300}, {300})[0], 24464);
  EXPECT_EQ(product_of<std::int32_t>(OX_S32, 1, 1, 1, {65536}, {65536})[0], 0);
  EXPECT_EQ(product_of<std::uint8_t>(OX_U8, 1, 1, 2, {128, 128}, {1, 1})[0], 0);
  // 65535 * 65535 does not fit an int.
  EXPECT_EQ(product_of<std::uint16_t>(OX_U16, 1, 1, 3, {65535, 65535, 65535}, {65535, 65535, 65535})[0], 3);
  const std::int64_t min64 = std::numeric_limits<std::int64_t>::min();
  EXPECT_EQ(product_of<std::int64_t>(OX_S64, 1, 1, 2, {min64, min64}, {-1, 1})[0], 0);
  EXPECT_EQ(product_of<std::int64_t>(OX_S64, 1, 1, 1, {4294967297}, {4294967298})[0], 12884901890);
}

TEST(MatMul, RoundsInSinglePrecision) {
  EXPECT_EQ(product_of<float>(OX_F32, 1, 1, 1, {4097}, {4097})[0], 16785408.0f);
}

TEST(MatMul, RoundsEachProductBeforeItIsAdded) {
  // 4097 * 4097 = 16785409 is rounded to 16785408; fused with the sum it would leave 1.
  for (const std::uint32_t flags : kForms)
    EXPECT_EQ(product_of<float>(OX_F32, 1, 1, 2, {-16785408, 4097}, {1, 4097}, flags)[0], 0.0f) << flags;
  // The same for doubles: (2^27 + 1)^2 = 2^54 + 2^28 + 1.
  for (const std::uint32_t flags : kForms)
    EXPECT_EQ(product_of<double>(OX_F64, 1, 1, 2, {-18014398777917440.0, 134217729.0}, {1, 134217729.0}, flags)[0],
              0.0)
        << flags;
}

TEST(MatMul, AddsStrictlyInRisingOrder) {
  // Each 1 is lost beside 2^24; in pairs they would count.
  std::vector<float> ones(40, 1.0f), terms(40, 1.0f);
  terms[0] = 16777216.0f;
  for (const std::uint32_t flags : kForms)
    EXPECT_EQ(product_of<float>(OX_F32, 1, 1, 40, terms, ones, flags)[0], 16777216.0f) << flags;
  // And from the other end they do count before the large term comes.
  std::swap(terms.front(), terms.back());
  for (const std::uint32_t flags : kForms)
    EXPECT_EQ(product_of<float>(OX_F32, 1, 1, 40, terms, ones, flags)[0], 16777256.0f) << flags;
}

TEST(MatMul, StoresTheFirstProductWithItsSign) {
  for (const std::uint32_t flags : kForms) {
    const std::vector<float> dst = product_of<float>(OX_F32, 1, 1, 1, {-1}, {0}, flags);
    EXPECT_TRUE(std::signbit(dst[0])) << flags;
    const std::vector<double> sum = product_of<double>(OX_F64, 1, 1, 2, {-1, -1}, {0, 0}, flags);
    EXPECT_TRUE(std::signbit(sum[0])) << flags;
  }
}

TEST(MatMul, GivesASymmetricResultForAMatrixTimesItsTranspose) {
  support::Random random(3107);
  for (std::int32_t n = 1; n <= 20; ++n) {
    const std::int32_t k = random.between(1, 20);
    std::vector<float> values(static_cast<std::size_t>(n * k));
    support::fill(random, OX_F32, values.data(), values.size(), Data::kTame);
    const Filled<float> a(OX_F32, n, k, values);
    const auto side = static_cast<std::size_t>(n);
    Filled<float> dst(OX_F32, n, n, std::vector<float>(side * side, 9));
    ox_mat_mul(&a.m, &a.m, &dst.m, OX_MAT_TRANSPOSE_B);
    for (std::size_t r = 0; r < side; ++r)
      for (std::size_t c = 0; c < r; ++c)
        EXPECT_EQ(dst.values[r * side + c], dst.values[c * side + r]) << r << ',' << c;
  }
}

TEST(MatMul, AppliesNoShortcutForTheIdentity) {
  // -0 * 1 + 1 * 0 is +0, and an infinity times the zeros of the identity gives NaNs beside it.
  const float infinity = std::numeric_limits<float>::infinity();
  const std::vector<float> dst = product_of<float>(OX_F32, 2, 2, 2, {-0.0f, 1, infinity, 2}, {1, 0, 0, 1});
  EXPECT_EQ(dst[0], 0.0f);
  EXPECT_FALSE(std::signbit(dst[0]));
  EXPECT_EQ(dst[1], 1.0f);
  EXPECT_EQ(dst[2], infinity);
  EXPECT_TRUE(std::isnan(dst[3]));
}

TEST(MatMul, TakesRowsAsPackedWhateverTheSteps) {
  Filled<float> a(OX_F32, 2, 2, {1, 2, 3, 4, 50, 60});
  Filled<float> b(OX_F32, 2, 2, {5, 6, 7, 8, 50, 60});
  Filled<float> dst(OX_F32, 2, 2, {9, 9, 9, 9, 9, 9});
  a.m.step = 12;
  b.m.step = 12;
  dst.m.step = 12;
  ox_mat_mul(&a.m, &b.m, &dst.m, 0);
  EXPECT_EQ(dst.values, (std::vector<float>{19, 22, 43, 50, 9, 9}));
}

// --------------------------------------------------------------------------- floats at their limits

template <class D>
class MatMulOfFloats : public testing::Test {};
TYPED_TEST_SUITE(MatMulOfFloats, support::FloatDepths, support::DepthName);

#if defined(__x86_64__)  // where there are vectors of more than 16 bytes
// Panels too long for the stack stand in the last rows of a result of eight times as many, 64 KiB at a time.
TYPED_TEST(MatMulOfFloats, MatchesPlainLoopWherePanelsStandInTheResult) {
  support::Random random(3107);
  Product<TypeParam> product(random, 1600);
  const std::int32_t size = sizeof(typename TypeParam::Scalar);
  const auto agrees = [&](std::int32_t row_bytes, std::int32_t k, std::uint32_t flags) {
    const std::int32_t n = random.between(90, 300);
    const std::int32_t rows = (std::min(k * row_bytes, 64 * 1024) + 64) / (n * size);
    // Results that are too low to lend so many rows, and such as are not.
    return product.agrees(random.between(8 * rows, 8 * rows + 70), n, k, flags);
  };
  for (const std::int32_t row_bytes : {64, 192, 256}) {
    for (int i = 0; i < 2 * support::scaled(6); ++i)
      ASSERT_TRUE(agrees(row_bytes, 14 * 1024 / row_bytes + i + 1, i % 2 == 0 ? 0 : OX_MAT_TRANSPOSE_B));
    ASSERT_TRUE(agrees(row_bytes, 64 * 1024 / row_bytes + 1, row_bytes == 64 ? 0 : OX_MAT_TRANSPOSE_B));
  }
  // Panels that would fill whole tiles of rows, had they not to begin with a cache line.
  for (int i = 0; i < 2 * support::scaled(6); ++i)
    for (const std::int32_t k : {60, 128, 240})
      ASSERT_TRUE(product.agrees(k == 128 ? 256 : 240, 512 / size, k, OX_MAT_TRANSPOSE_B));
  // Rows of b that are cache lines, more of them than are loaded from where they are.
  for (int i = 0; i < 2 * support::scaled(2); ++i) ASSERT_TRUE(product.agrees(33, 1024 / size, 1023 + i, 0));
}
#endif

TYPED_TEST(MatMulOfFloats, HonoursSubnormalTermsSumsAndFactors) {
  using T = typename TypeParam::Scalar;
  support::Random random(3108);
  Product<TypeParam> product(random, 32);
  for (const std::int32_t target : support::critical_exponents<T>()) {
    for (const std::uint32_t flags : kForms) {
      for (int i = 0; i < 1 + support::scaled(120); ++i) {
        const std::int32_t m = random.between(1, 9), n = random.between(1, 24), k = random.between(1, 12);
        product.lay(m, n, k, flags);
        support::fill_factors_about<T>(random, TypeParam::kType, product.elements(product.a),
                                       product.elements(product.b), m, n, k, flags, target);
        ASSERT_TRUE(product.agrees()) << "terms about 2^" << target;
      }
    }
  }
}

TYPED_TEST(MatMulOfFloats, SeesASingleSubnormalTermWhereverItIs) {
  using T = typename TypeParam::Scalar;
  support::Random random(3109);
  Product<TypeParam> product(random, 80);
  for (const std::uint32_t flags : kForms) {
    for (const std::int32_t n : support::row_lengths()) {
      for (const std::int32_t k : {1, 5, 12}) {
        const std::int32_t m = random.between(1, 9);
        for (std::int32_t line = 0; line < m + n; ++line) {
          const bool in_a = line < m;
          const std::int32_t t = 2 * random.between(0, (k - 1) / 2);
          product.lay(m, n, k, flags);
          support::fill_factors_with_one_odd<T>(random, TypeParam::kType, product.elements(product.a),
                                                product.elements(product.b), m, n, k, flags, in_a,
                                                in_a ? line : line - m, t, random.one_in(2));
          ASSERT_TRUE(product.agrees())
              << (in_a ? "a, row " : "b, column ") << (in_a ? line : line - m) << ", term " << t;
        }
      }
    }
  }
}

}  // namespace
