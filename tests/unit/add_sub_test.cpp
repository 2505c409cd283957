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

struct Add {
  static void library(const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst) { ox_mat_add(a, b, dst); }
  static void reference(const reference::Matrix& a, const reference::Matrix& b, const reference::Matrix& dst) {
    reference::add(a, b, dst);
  }
};
struct Sub {
  static void library(const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst) { ox_mat_sub(a, b, dst); }
  static void reference(const reference::Matrix& a, const reference::Matrix& b, const reference::Matrix& dst) {
    reference::sub(a, b, dst);
  }
};

// One buffer in which all three operands lie, far apart or over each other.
class Operands {
 public:
  Operands(support::Random& random, std::size_t bytes) : random_(random), memory_(bytes) {}

  unsigned char* at(std::size_t byte) { return memory_.data() + byte; }

  template <class Op>
  testing::AssertionResult agree(const ox_mat_t& a, const ox_mat_t& b, const ox_mat_t& dst, Data kind) {
    support::fill(random_, dst.type, memory_.data(), memory_.size() / reference::scalar_size(dst.type), kind);
    support::Twin twin(memory_.data(), memory_.size());
    ox_mat_t destination = dst;
    Op::library(&a, &b, &destination);
    Op::reference(plain(a, twin.at(a.data)), plain(b, twin.at(b.data)), plain(dst, twin.at(dst.data)));
    const auto in_part = [&](const ox_mat_t& operand) {
      const std::ptrdiff_t distance =
          static_cast<unsigned char*>(dst.data) - static_cast<unsigned char*>(operand.data);
      return distance % static_cast<std::ptrdiff_t>(reference::scalar_size(dst.type)) != 0;
    };
    const bool overlaps_in_part = in_part(a) || in_part(b);
    const auto begin = static_cast<std::size_t>(static_cast<unsigned char*>(dst.data) - memory_.data());
    const std::int32_t counted = reference::scalar_count(plain(dst));
    const std::size_t count = counted > 0 ? static_cast<std::size_t>(counted) : 0;
    const std::size_t end = begin + count * reference::scalar_size(dst.type);
    // The bits of a NaN that arithmetic produced are not fixed. Where elements overlap in part they become
    // bits of other numbers, and nothing can be said about those.
    if (overlaps_in_part && support::any_nan(dst.type, twin.at(dst.data), count))
      return testing::AssertionSuccess();
    const testing::AssertionResult before = same_bytes(memory_.data(), twin.data(), begin);
    if (!before) return before;
    const testing::AssertionResult behind =
        same_bytes(memory_.data() + end, twin.data() + end, memory_.size() - end);
    if (!behind) return behind;
    return same_values(dst.type, dst.data, twin.at(dst.data), count);
  }

 private:
  support::Random& random_;
  std::vector<unsigned char> memory_;
};

template <class D>
class AddAndSubOfEveryDepth : public testing::Test {
 protected:
  static constexpr std::uint32_t kType = D::kType;
  static constexpr std::size_t kSize = sizeof(typename D::Scalar);

  template <class Op>
  void match_around_every_lane_boundary(std::uint64_t seed) {
    support::Random random(seed);
    support::GuardedPages left(1024), right(1024), to(1024);
    for (std::int32_t n = 0; n <= support::last_lane_boundary<D>(); ++n) {
      const std::size_t count = static_cast<std::size_t>(n);
      const std::size_t bytes = count * kSize;
      for (int i = 0; i < 4 + support::scaled(16); ++i) {
        const Placement at_end = {Placement::kAtEnd, 0};
        unsigned char* const a = left.place(bytes, i == 0 ? at_end : support::any_placement(random, kType));
        unsigned char* const b = right.place(bytes, i == 0 ? at_end : support::any_placement(random, kType));
        unsigned char* const dst = to.place(bytes, i == 0 ? at_end : support::any_placement(random, kType));
        const Data kind = support::any_kind(random);
        support::fill(random, kType, a, count, kind);
        support::fill(random, kType, b, count, kind);
        support::fill(random, kType, dst, count, Data::kTame);
        const ox_mat_t A = header(kType, 1, n, a);
        const ox_mat_t B = header(kType, 1, n, b);
        ox_mat_t C = header(kType, 1, n, dst);
        support::Twin expected(dst, bytes);
        const support::Unchanged a_kept(a, bytes), b_kept(b, bytes);
        Op::library(&A, &B, &C);
        Op::reference(plain(A), plain(B), plain(C, expected.at(dst)));
        ASSERT_TRUE(same_values(kType, dst, expected.data(), count)) << random << "length " << n;
        ASSERT_TRUE(to.intact()) << random << "length " << n;
        ASSERT_TRUE(a_kept.check() && b_kept.check()) << random << "length " << n;
      }
    }
  }

  // The destination laid over one operand in every way, while the other stands apart, coincides or overlaps too.
  template <class Op>
  void match_for_every_overlap(std::uint64_t seed) {
    support::Random random(seed);
    Operands operands(random, 1536);
    const std::vector<std::ptrdiff_t> distances = support::overlap_distances(kType);
    for (const std::ptrdiff_t distance : distances) {
      for (int i = 0; i < 4 + support::scaled(12); ++i) {
        const std::int32_t n = random.between(1, support::last_lane_boundary<D>() * 2);
        const std::size_t base = 512 + support::alignment(kType) * random.below(64 / support::alignment(kType));
        unsigned char* const one = operands.at(base);
        unsigned char* other = operands.at(1152);
        if (i % 4 == 1) other = one;
        if (i % 4 == 2) other = one + distances[random.below(distances.size())];
        if (i % 4 == 3) other = one + distance;
        const bool swapped = random.one_in(2);
        const ox_mat_t a = header(kType, 1, n, swapped ? other : one);
        const ox_mat_t b = header(kType, 1, n, swapped ? one : other);
        const ox_mat_t dst = header(kType, 1, n, one + distance);
        const bool whole_scalars = (distance % static_cast<std::ptrdiff_t>(kSize)) == 0 &&
                                   (other - one) % static_cast<std::ptrdiff_t>(kSize) == 0;
        ASSERT_TRUE(operands.agree<Op>(a, b, dst, whole_scalars ? support::any_kind(random) : Data::kTame))
            << random << n << " scalars, destination " << distance << " bytes behind operand "
            << (swapped ? 'b' : 'a') << ", the other at " << other - one;
      }
    }
  }

  template <class Op>
  void match_for_every_shape(std::uint64_t seed) {
    support::Random random(seed);
    // 3 x 3 elements of 32 channels of 8 bytes are 2304 bytes.
    Operands operands(random, 7680);
    for (int i = 0; i < support::scaled(600); ++i) {
      const std::uint32_t type =
          support::with_high_bits(random, OX_TYPE(kType, random.one_in(4) ? 32 : random.between(1, 5)));
      ox_mat_t a = header(type, random.between(-2, 3), random.between(-2, 3), operands.at(0));
      if (random.one_in(8)) a.rows = 65536, a.cols = 65536;  // a count of zero modulo 2^32
      a.step = random.between(-100, 100);                    // never read
      ox_mat_t b = a;
      b.data = operands.at(2560 + 4 * random.below(2));
      b.step = random.between(-100, 100);
      ox_mat_t dst = a;
      dst.data = operands.at(5120 + 4 * random.below(2));
      dst.step = random.between(-100, 100);
      ASSERT_TRUE(operands.agree<Op>(a, b, dst, support::any_kind(random))) << random << i;
      ASSERT_TRUE(operands.agree<Op>(a, b, a, support::any_kind(random))) << random << i << " into a";
      ASSERT_TRUE(operands.agree<Op>(a, b, b, support::any_kind(random))) << random << i << " into b";
      ASSERT_TRUE(operands.agree<Op>(a, a, dst, support::any_kind(random))) << random << i << " with itself";
      ASSERT_TRUE(operands.agree<Op>(a, a, a, support::any_kind(random))) << random << i << " all one";
    }
  }

  template <class Op>
  void refuse() {
    unsigned char a_data[512], b_data[512], dst_data[512];
    std::memset(a_data, 1, sizeof a_data);
    std::memset(b_data, 2, sizeof b_data);
    std::memset(dst_data, 9, sizeof dst_data);
    const support::Unchanged untouched(dst_data, sizeof dst_data);
    const ox_mat_t good_a = header(kType, 2, 3, a_data);
    const ox_mat_t good_b = header(kType, 2, 3, b_data);
    const ox_mat_t good_dst = header(kType, 2, 3, dst_data);
    const struct {
      std::uint32_t type;
      std::int32_t rows, cols;
    } misfits[] = {{kType ^ 1u, 2, 3},
                   {kType ^ 2u, 2, 3},
                   {OX_TYPE(kType, 2), 2, 3},
                   {kType | 0x100u, 2, 3},
                   {kType | 0x80000000u, 2, 3},
                   {kType, 3, 3},
                   {kType, 1, 3},
                   {kType, 2, 4},
                   {kType, 2, 2},
                   {kType, 3, 2},
                   {kType, 6, 1}};
    for (const auto& misfit : misfits) {
      const ox_mat_t a = header(misfit.type, misfit.rows, misfit.cols, a_data);
      const ox_mat_t b = header(misfit.type, misfit.rows, misfit.cols, b_data);
      ox_mat_t dst = header(misfit.type, misfit.rows, misfit.cols, dst_data);
      ox_mat_t fitting = good_dst;
      Op::library(&a, &good_b, &fitting);
      EXPECT_TRUE(untouched.check()) << "a " << std::hex << misfit.type << ' ' << misfit.rows << 'x'
                                     << misfit.cols;
      Op::library(&good_a, &b, &fitting);
      EXPECT_TRUE(untouched.check()) << "b " << std::hex << misfit.type << ' ' << misfit.rows << 'x'
                                     << misfit.cols;
      Op::library(&good_a, &good_b, &dst);
      EXPECT_TRUE(untouched.check()) << "dst " << std::hex << misfit.type << ' ' << misfit.rows << 'x'
                                     << misfit.cols;
      Op::library(&good_a, &b, &dst);
      EXPECT_TRUE(untouched.check()) << "b and dst " << std::hex << misfit.type << ' ' << misfit.rows << 'x'
                                     << misfit.cols;
    }
  }
};
TYPED_TEST_SUITE(AddAndSubOfEveryDepth, support::EveryDepth, support::DepthName);

TYPED_TEST(AddAndSubOfEveryDepth, AddMatchesPlainLoopAroundEveryLaneBoundary) {
  this->template match_around_every_lane_boundary<Add>(2201);
}
TYPED_TEST(AddAndSubOfEveryDepth, SubMatchesPlainLoopAroundEveryLaneBoundary) {
  this->template match_around_every_lane_boundary<Sub>(2202);
}
TYPED_TEST(AddAndSubOfEveryDepth, AddMatchesPlainLoopForEveryOverlap) {
  this->template match_for_every_overlap<Add>(2203);
}
TYPED_TEST(AddAndSubOfEveryDepth, SubMatchesPlainLoopForEveryOverlap) {
  this->template match_for_every_overlap<Sub>(2204);
}
TYPED_TEST(AddAndSubOfEveryDepth, AddMatchesPlainLoopForEveryShapeAndChannelCount) {
  this->template match_for_every_shape<Add>(2205);
}
TYPED_TEST(AddAndSubOfEveryDepth, SubMatchesPlainLoopForEveryShapeAndChannelCount) {
  this->template match_for_every_shape<Sub>(2206);
}
TYPED_TEST(AddAndSubOfEveryDepth, AddLeavesDstUntouchedWhenHeadersDiffer) { this->template refuse<Add>(); }
TYPED_TEST(AddAndSubOfEveryDepth, SubLeavesDstUntouchedWhenHeadersDiffer) { this->template refuse<Sub>(); }

TYPED_TEST(AddAndSubOfEveryDepth, TouchNothingOfAnEmptyMatrix) {
  const std::int32_t shapes[][2] = {{0, 5}, {5, 0}, {0, 0}, {-1, 5}, {5, -1}};
  for (const auto& shape : shapes) {
    // Not even readable.
    const ox_mat_t nowhere = header(TypeParam::kType, shape[0], shape[1], nullptr);
    unsigned char dst_data[64] = {4, 5, 6};
    const support::Unchanged untouched(dst_data, sizeof dst_data);
    ox_mat_t dst = header(TypeParam::kType, shape[0], shape[1], dst_data);
    ox_mat_add(&nowhere, &nowhere, &dst);
    ox_mat_sub(&nowhere, &nowhere, &dst);
    EXPECT_TRUE(untouched.check()) << shape[0] << 'x' << shape[1];
  }
}

// ---------------------------------------------------------------------------------------------- by name

TEST(MatAdd, WrapsIntegers) {
  Filled<std::uint8_t> u8(OX_U8, 1, 2, {255, 200});
  const Filled<std::uint8_t> u8_more(OX_U8, 1, 2, {1, 100});
  ox_mat_add(&u8.m, &u8_more.m, &u8.m);
  EXPECT_EQ(u8.values, (std::vector<std::uint8_t>{0, 44}));

  Filled<std::int8_t> s8(OX_S8, 1, 1, {100});
  ox_mat_add(&s8.m, &s8.m, &s8.m);
  EXPECT_EQ(s8.values[0], -56);

  Filled<std::int16_t> s16(OX_S16, 1, 1, {32767});
  const Filled<std::int16_t> s16_more(OX_S16, 1, 1, {1});
  ox_mat_add(&s16.m, &s16_more.m, &s16.m);
  EXPECT_EQ(s16.values[0], -32768);
}

TEST(MatAdd, CarriesIntoTheUpperHalfOfS64) {
  const Filled<std::int64_t> a(OX_S64, 1, 2, {4294967295, -1});
  const Filled<std::int64_t> b(OX_S64, 1, 2, {1, 1});
  Filled<std::int64_t> dst(OX_S64, 1, 2, {9, 9});
  ox_mat_add(&a.m, &b.m, &dst.m);
  EXPECT_EQ(dst.values, (std::vector<std::int64_t>{4294967296, 0}));
  ox_mat_sub(&dst.m, &b.m, &dst.m);
  EXPECT_EQ(dst.values, (std::vector<std::int64_t>{4294967295, -1}));
}

TEST(MatAdd, AddsEachOfThreeChannelsOnItsOwn) {
  const Filled<std::uint8_t> a(OX_TYPE(OX_U8, 3), 2, 2, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 255});
  const Filled<std::uint8_t> b(OX_TYPE(OX_U8, 3), 2, 2, {10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 1});
  Filled<std::uint8_t> dst(OX_TYPE(OX_U8, 3), 2, 2, std::vector<std::uint8_t>(13, 9));
  ox_mat_add(&a.m, &b.m, &dst.m);
  EXPECT_EQ(dst.values, (std::vector<std::uint8_t>{11, 22, 33, 44, 55, 66, 77, 88, 99, 110, 121, 0, 9}));
}

TEST(MatAdd, RoundsInTheOwnTypeAndOverflowsToInfinity) {
  const float most = std::numeric_limits<float>::max();
  const Filled<float> a(OX_F32, 1, 3, {16777216.0f, most, -0.0f});
  const Filled<float> b(OX_F32, 1, 3, {1.0f, most, -0.0f});
  Filled<float> dst(OX_F32, 1, 3, {9, 9, 9});
  ox_mat_add(&a.m, &b.m, &dst.m);
  EXPECT_EQ(dst.values[0], 16777216.0f);
  EXPECT_EQ(dst.values[1], std::numeric_limits<float>::infinity());
  EXPECT_EQ(dst.values[2], 0.0f);
  EXPECT_TRUE(std::signbit(dst.values[2]));
}

TEST(MatSub, WrapsBelowZero) {
  const Filled<std::uint8_t> a(OX_U8, 1, 1, {0});
  const Filled<std::uint8_t> b(OX_U8, 1, 1, {1});
  Filled<std::uint8_t> dst(OX_U8, 1, 1, {9});
  ox_mat_sub(&a.m, &b.m, &dst.m);
  EXPECT_EQ(dst.values[0], 255);
}

TYPED_TEST(AddAndSubOfEveryDepth, SubOfAMatrixFromItselfIsZero) {
  using T = typename TypeParam::Scalar;
  for (std::size_t n = 1; n <= 70; ++n) {
    std::vector<T> values(n, T{3});
    values[n / 2] = std::numeric_limits<T>::max();
    Filled<T> a(TypeParam::kType, 1, static_cast<std::int32_t>(n), values);
    ox_mat_sub(&a.m, &a.m, &a.m);
    // As bytes: a zero of floats is the positive one.
    const std::vector<T> zeros(n, T{0});
    EXPECT_TRUE(same_bytes(a.values.data(), zeros.data(), n * sizeof(T))) << n;
  }
}

TEST(MatSub, TurnsNaNsAndInfinitiesIntoNaNsWhenSubtractedFromThemselves) {
  const float infinity = std::numeric_limits<float>::infinity();
  Filled<float> a(OX_F32, 1, 4, {infinity, -infinity, std::numeric_limits<float>::quiet_NaN(), 5.0f});
  ox_mat_sub(&a.m, &a.m, &a.m);
  EXPECT_TRUE(std::isnan(a.values[0]));
  EXPECT_TRUE(std::isnan(a.values[1]));
  EXPECT_TRUE(std::isnan(a.values[2]));
  EXPECT_EQ(a.values[3], 0.0f);
}

TEST(MatSub, ChangesSignWhenTheOperandsChangePlaces) {
  const Filled<double> a(OX_F64, 1, 3, {1.0, -2.5, 1e300});
  const Filled<double> b(OX_F64, 1, 3, {0.1, 4.0, 1e-300});
  Filled<double> forward(OX_F64, 1, 3, {9, 9, 9});
  Filled<double> backward(OX_F64, 1, 3, {9, 9, 9});
  ox_mat_sub(&a.m, &b.m, &forward.m);
  ox_mat_sub(&b.m, &a.m, &backward.m);
  EXPECT_EQ(forward.values, (std::vector<double>{0.9, -6.5, 1e300}));
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(forward.values[i], -backward.values[i]) << i;
}

TEST(MatSub, GivesPositiveZeroForEqualElementsInEitherOrder) {
  const Filled<float> a(OX_F32, 1, 1, {2.5f});
  const Filled<float> b(OX_F32, 1, 1, {2.5f});
  Filled<float> dst(OX_F32, 1, 1, {9});
  ox_mat_sub(&a.m, &b.m, &dst.m);
  EXPECT_EQ(dst.values[0], 0.0f);
  EXPECT_FALSE(std::signbit(dst.values[0]));
  dst.values[0] = 9;
  ox_mat_sub(&b.m, &a.m, &dst.m);
  EXPECT_EQ(dst.values[0], 0.0f);
  EXPECT_FALSE(std::signbit(dst.values[0]));
}

TEST(MatAddAndSub, ReadAndWritePackedRunsWhateverTheSteps) {
  Filled<std::int16_t> a(OX_S16, 2, 2, {1, 2, 3, 4, 50, 60});
  Filled<std::int16_t> b(OX_S16, 2, 2, {10, 20, 30, 40, 500, 600});
  Filled<std::int16_t> dst(OX_S16, 2, 2, {9, 9, 9, 9, 9, 9});
  a.m.step = 6;
  b.m.step = 8;
  dst.m.step = 0;
  ox_mat_add(&a.m, &b.m, &dst.m);
  EXPECT_EQ(dst.values, (std::vector<std::int16_t>{11, 22, 33, 44, 9, 9}));
  ox_mat_sub(&a.m, &b.m, &dst.m);
  EXPECT_EQ(dst.values, (std::vector<std::int16_t>{-9, -18, -27, -36, 9, 9}));
}

// Sums whose terms nearly cancel just above the smallest normal number come out subnormal.
template <class D>
class AddAndSubOfFloats : public testing::Test {};
TYPED_TEST_SUITE(AddAndSubOfFloats, support::FloatDepths, support::DepthName);

TYPED_TEST(AddAndSubOfFloats, HonourSubnormalTermsAndResults) {
  using T = typename TypeParam::Scalar;
  constexpr std::int32_t smallest = std::numeric_limits<T>::min_exponent - 1;
  constexpr std::int32_t digits = std::numeric_limits<T>::digits;
  support::Random random(2207);
  support::GuardedPages left(1024), right(1024), to(1024);
  for (std::int32_t exponent = smallest - digits; exponent <= smallest + digits + 4; ++exponent) {
    for (int i = 0; i < support::scaled(64); ++i) {
      const std::int32_t n = random.between(1, 40);
      const auto count = static_cast<std::size_t>(n);
      unsigned char* const a = left.place(count * sizeof(T), support::any_placement(random, TypeParam::kType));
      unsigned char* const b = right.place(count * sizeof(T), support::any_placement(random, TypeParam::kType));
      unsigned char* const sum = to.place(count * sizeof(T), support::any_placement(random, TypeParam::kType));
      // Large all around, or small all around, and one at the exponent in question in any case.
      const std::int32_t most = random.one_in(2) ? exponent : 0;
      support::fill_exponents(random, TypeParam::kType, a, count, most - 1, most);
      support::store_float(random, TypeParam::kType, a + random.below(count) * sizeof(T), exponent);
      for (std::size_t k = 0; k < count; ++k) {
        T value;
        std::memcpy(&value, a + k * sizeof(T), sizeof(T));
        if (random.one_in(2)) value = -value;
        if (random.one_in(2)) value = std::nextafter(value, T{0});
        std::memcpy(b + k * sizeof(T), &value, sizeof(T));
      }
      const ox_mat_t A = header(TypeParam::kType, 1, n, a);
      const ox_mat_t B = header(TypeParam::kType, 1, n, b);
      ox_mat_t C = header(TypeParam::kType, 1, n, sum);
      support::Twin expected(sum, count * sizeof(T));
      ox_mat_add(&A, &B, &C);
      reference::add(plain(A), plain(B), plain(C, expected.at(sum)));
      ASSERT_TRUE(same_values(TypeParam::kType, sum, expected.data(), count)) << random << "exponent " << exponent;
      ox_mat_sub(&A, &B, &C);
      reference::sub(plain(A), plain(B), plain(C, expected.at(sum)));
      ASSERT_TRUE(same_values(TypeParam::kType, sum, expected.data(), count)) << random << "exponent " << exponent;
    }
  }
}

}  // namespace
