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

// The two operations in one shape; negation has no use for the factor.
struct Neg {
  static void library(const unsigned char*, const ox_mat_t* src, ox_mat_t* dst) { ox_mat_neg(src, dst); }
  static void reference(const unsigned char*, const reference::Matrix& src, const reference::Matrix& dst) {
    reference::neg(src, dst);
  }
  // A NaN whose sign is flipped keeps the rest of its bits.
  static constexpr bool kAllNansEqual = false;
};
struct Scale {
  static void library(const unsigned char* factor, const ox_mat_t* src, ox_mat_t* dst) {
    ox_mat_scale(factor, src, dst);
  }
  static void reference(const unsigned char* factor, const reference::Matrix& src, const reference::Matrix& dst) {
    reference::scale(factor, src, dst);
  }
  static constexpr bool kAllNansEqual = true;
};

// One buffer in which a source and a destination lie, far apart or over each other.
class Operands {
 public:
  Operands(support::Random& random, std::size_t bytes) : random_(random), memory_(bytes), factor_(16) {}

  unsigned char* at(std::size_t byte) { return memory_.data() + byte; }

  template <class Op>
  testing::AssertionResult agree(std::uint32_t type, const ox_mat_t& src, const ox_mat_t& dst, Data kind) {
    support::fill(random_, type, memory_.data(), memory_.size() / reference::scalar_size(type), kind);
    unsigned char* const factor = factor_.data() + support::alignment(type) * random_.below(2);
    support::fill(random_, type, factor, 1, kind);
    return agree_on_data<Op>(factor, src, dst);
  }

  template <class Op>
  testing::AssertionResult agree_on_data(const unsigned char* factor, const ox_mat_t& src, const ox_mat_t& dst) {
    support::Twin twin(memory_.data(), memory_.size());
    ox_mat_t destination = dst;
    Op::library(factor, &src, &destination);
    Op::reference(factor, plain(src, twin.at(src.data)), plain(dst, twin.at(dst.data)));
    const std::ptrdiff_t distance = static_cast<unsigned char*>(dst.data) - static_cast<unsigned char*>(src.data);
    const bool overlaps_in_part =
        Op::kAllNansEqual && distance % static_cast<std::ptrdiff_t>(reference::scalar_size(dst.type)) != 0;
    // Source and destination start at addresses that fit the scalars, the buffer as a whole need not: what
    // lies before and behind the destination is compared as bytes.
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
    return support::same_scalar_run(dst.type, dst.data, twin.at(dst.data), count, Op::kAllNansEqual);
  }

 private:
  support::Random& random_;
  std::vector<unsigned char> memory_;
  std::vector<unsigned char> factor_;
};

template <class D>
class NegAndScaleOfEveryDepth : public testing::Test {
 protected:
  static constexpr std::uint32_t kType = D::kType;
  static constexpr std::size_t kSize = sizeof(typename D::Scalar);

  template <class Op>
  void match_around_every_lane_boundary(std::uint64_t seed) {
    support::Random random(seed);
    support::GuardedPages from(1024), to(1024);
    for (std::int32_t n = 0; n <= support::last_lane_boundary<D>(); ++n) {
      const auto count = static_cast<std::size_t>(n);
      for (int i = 0; i < 4 + support::scaled(32); ++i) {
        unsigned char* const src = from.place(
            count * kSize, i == 0 ? Placement{Placement::kAtEnd, 0} : support::any_placement(random, kType));
        unsigned char* const dst = to.place(
            count * kSize, i == 0 ? Placement{Placement::kAtEnd, 0} : support::any_placement(random, kType));
        support::fill(random, kType, src, count, support::any_kind(random));
        support::fill(random, kType, dst, count, Data::kTame);
        typename D::Scalar factor;
        support::fill(random, kType, &factor, 1, support::any_kind(random));
        const auto* const factor_bytes = static_cast<const unsigned char*>(static_cast<const void*>(&factor));
        const ox_mat_t source = header(kType, 1, n, src);
        ox_mat_t destination = header(kType, 1, n, dst);
        support::Twin expected(dst, count * kSize);
        const support::Unchanged source_kept(src, count * kSize);
        Op::library(factor_bytes, &source, &destination);
        Op::reference(factor_bytes, plain(source), plain(destination, expected.at(dst)));
        ASSERT_TRUE(support::same_scalar_run(kType, dst, expected.data(), count, Op::kAllNansEqual))
            << random << "length " << n;
        ASSERT_TRUE(to.intact()) << random << "length " << n;
        ASSERT_TRUE(source_kept.check()) << random << "length " << n;
      }
    }
  }

  template <class Op>
  void match_for_every_overlap(std::uint64_t seed) {
    support::Random random(seed);
    Operands operands(random, 1024);
    for (const std::ptrdiff_t distance : support::overlap_distances(kType)) {
      for (int i = 0; i < 2 + support::scaled(16); ++i) {
        const std::int32_t n = random.between(1, support::last_lane_boundary<D>() * 2);
        const std::size_t base = 512 + support::alignment(kType) * random.below(64 / support::alignment(kType));
        const ox_mat_t src = header(kType, 1, n, operands.at(base));
        const ox_mat_t dst = header(kType, 1, n, operands.at(base) + distance);
        const bool whole_scalars = distance % static_cast<std::ptrdiff_t>(kSize) == 0;
        ASSERT_TRUE(operands.agree<Op>(kType, src, dst, whole_scalars ? support::any_kind(random) : Data::kTame))
            << random << n << " scalars, destination " << distance << " bytes behind the source";
      }
    }
  }

  template <class Op>
  void match_for_every_shape(std::uint64_t seed) {
    support::Random random(seed);
    // 3 x 3 elements of 32 channels of 8 bytes are 2304 bytes.
    Operands operands(random, 5120);
    for (int i = 0; i < support::scaled(600); ++i) {
      const std::uint32_t type =
          support::with_high_bits(random, OX_TYPE(kType, random.one_in(4) ? 32 : random.between(1, 5)));
      ox_mat_t src = header(type, random.between(-2, 3), random.between(-2, 3), operands.at(0));
      if (random.one_in(8)) src.rows = 65536, src.cols = 65536;  // a count of zero modulo 2^32
      ox_mat_t dst = src;
      dst.data = operands.at(2560 + 4 * random.below(2));
      src.step = random.between(-100, 100);  // never read
      dst.step = random.between(-100, 100);
      ASSERT_TRUE(operands.agree<Op>(type, src, dst, support::any_kind(random))) << random << i;
      dst.data = src.data;
      ASSERT_TRUE(operands.agree<Op>(type, src, dst, support::any_kind(random))) << random << i << " in place";
    }
  }

  template <class Op>
  void refuse(std::uint64_t seed) {
    support::Random random(seed);
    unsigned char src_data[256], dst_data[256], factor[8];
    support::fill(random, kType, src_data, sizeof src_data / kSize, Data::kTame);
    support::fill(random, kType, dst_data, sizeof dst_data / kSize, Data::kTame);
    support::fill(random, kType, factor, 1, Data::kTame);
    const support::Unchanged untouched(dst_data, sizeof dst_data);
    const ox_mat_t src = header(kType, 2, 3, src_data);
    const ox_mat_t refused[] = {
        header(kType ^ 1u, 2, 3, dst_data),           // another depth of the same size, or of another
        header(OX_TYPE(kType, 2), 2, 3, dst_data),    // another channel count
        header(kType | 0x100u, 2, 3, dst_data),       // other high bits
        header(kType | 0x80000000u, 2, 3, dst_data),  //
        header(kType, 3, 3, dst_data),                // rows
        header(kType, 2, 2, dst_data),                // cols
        header(kType, 3, 2, dst_data),                // as many scalars in another shape
        header(kType, 1, 6, dst_data)};
    for (ox_mat_t dst : refused) {
      Op::library(factor, &src, &dst);
      EXPECT_TRUE(untouched.check()) << std::hex << dst.type << ' ' << dst.rows << 'x' << dst.cols;
    }
  }
};
TYPED_TEST_SUITE(NegAndScaleOfEveryDepth, support::EveryDepth, support::DepthName);

TYPED_TEST(NegAndScaleOfEveryDepth, NegMatchesPlainLoopAroundEveryLaneBoundary) {
  this->template match_around_every_lane_boundary<Neg>(2101);
}
TYPED_TEST(NegAndScaleOfEveryDepth, ScaleMatchesPlainLoopAroundEveryLaneBoundary) {
  this->template match_around_every_lane_boundary<Scale>(2102);
}
TYPED_TEST(NegAndScaleOfEveryDepth, NegMatchesPlainLoopForEveryOverlap) {
  this->template match_for_every_overlap<Neg>(2103);
}
TYPED_TEST(NegAndScaleOfEveryDepth, ScaleMatchesPlainLoopForEveryOverlap) {
  this->template match_for_every_overlap<Scale>(2104);
}
TYPED_TEST(NegAndScaleOfEveryDepth, NegMatchesPlainLoopForEveryShapeAndChannelCount) {
  this->template match_for_every_shape<Neg>(2105);
}
TYPED_TEST(NegAndScaleOfEveryDepth, ScaleMatchesPlainLoopForEveryShapeAndChannelCount) {
  this->template match_for_every_shape<Scale>(2106);
}
TYPED_TEST(NegAndScaleOfEveryDepth, NegLeavesDstUntouchedWhenHeadersDiffer) { this->template refuse<Neg>(2107); }
TYPED_TEST(NegAndScaleOfEveryDepth, ScaleLeavesDstUntouchedWhenHeadersDiffer) {
  this->template refuse<Scale>(2108);
}

TYPED_TEST(NegAndScaleOfEveryDepth, WriteNothingForAnEmptyMatrix) {
  unsigned char src_data[64] = {1, 2, 3}, dst_data[64] = {4, 5, 6}, factor[8] = {2};
  const support::Unchanged untouched(dst_data, sizeof dst_data);
  const std::int32_t shapes[][2] = {{0, 5}, {5, 0}, {0, 0}, {-1, 5}, {5, -1}};
  for (const auto& shape : shapes) {
    const ox_mat_t src = header(TypeParam::kType, shape[0], shape[1], src_data);
    ox_mat_t dst = header(TypeParam::kType, shape[0], shape[1], dst_data);
    ox_mat_neg(&src, &dst);
    ox_mat_scale(factor, &src, &dst);
    EXPECT_TRUE(untouched.check()) << shape[0] << 'x' << shape[1];
  }
}

// ---------------------------------------------------------------------------------------------- by name

TEST(MatNeg, KeepsTheMostNegativeIntegers) {
  Filled<std::int8_t> bytes(OX_S8, 1, 3, {-128, 0, 127});
  ox_mat_neg(&bytes.m, &bytes.m);
  EXPECT_EQ(bytes.values, (std::vector<std::int8_t>{-128, 0, -127}));

  Filled<std::int16_t> halves(OX_S16, 1, 3, {-32768, 1, 32767});
  ox_mat_neg(&halves.m, &halves.m);
  EXPECT_EQ(halves.values, (std::vector<std::int16_t>{-32768, -1, -32767}));

  const std::int32_t min32 = std::numeric_limits<std::int32_t>::min();
  Filled<std::int32_t> words(OX_S32, 1, 2, {min32, 5});
  ox_mat_neg(&words.m, &words.m);
  EXPECT_EQ(words.values, (std::vector<std::int32_t>{min32, -5}));

  const std::int64_t min64 = std::numeric_limits<std::int64_t>::min();
  Filled<std::int64_t> longs(OX_S64, 1, 3, {min64, 4294967296, -1});
  ox_mat_neg(&longs.m, &longs.m);
  EXPECT_EQ(longs.values, (std::vector<std::int64_t>{min64, -4294967296, 1}));
}

TEST(MatNeg, LeavesUnsignedDestinationsAsTheyWere) {
  const Filled<std::uint8_t> bytes(OX_U8, 1, 40, std::vector<std::uint8_t>(40, 3));
  Filled<std::uint8_t> byte_dst(OX_U8, 1, 40, std::vector<std::uint8_t>(40, 9));
  ox_mat_neg(&bytes.m, &byte_dst.m);
  EXPECT_EQ(byte_dst.values, std::vector<std::uint8_t>(40, 9));

  const Filled<std::uint16_t> halves(OX_U16, 1, 40, std::vector<std::uint16_t>(40, 3));
  Filled<std::uint16_t> half_dst(OX_U16, 1, 40, std::vector<std::uint16_t>(40, 9));
  ox_mat_neg(&halves.m, &half_dst.m);
  EXPECT_EQ(half_dst.values, std::vector<std::uint16_t>(40, 9));
}

TEST(MatNeg, FlipsTheSignBitOfFloatsAndKeepsTheRest) {
  // Zeros, infinity, quiet and signalling NaNs, a subnormal.
  Filled<std::uint32_t> singles(OX_F32, 1, 6,
                                {0x00000000u, 0x80000000u, 0x7F800000u, 0x7FC12345u, 0xFF812345u, 0x00000001u});
  ox_mat_neg(&singles.m, &singles.m);
  EXPECT_EQ(singles.values, (std::vector<std::uint32_t>{0x80000000u, 0x00000000u, 0xFF800000u, 0xFFC12345u,
                                                        0x7F812345u, 0x80000001u}));

  Filled<std::uint64_t> doubles(OX_F64, 1, 3, {0u, 0x7FF0123456789ABCu, 0x800FFFFFFFFFFFFFu});
  ox_mat_neg(&doubles.m, &doubles.m);
  EXPECT_EQ(doubles.values,
            (std::vector<std::uint64_t>{0x8000000000000000u, 0xFFF0123456789ABCu, 0x000FFFFFFFFFFFFFu}));
}

TEST(MatScale, WrapsIntegers) {
  const std::uint8_t two_u8 = 2;
  Filled<std::uint8_t> bytes(OX_U8, 1, 2, {200, 100});
  ox_mat_scale(&two_u8, &bytes.m, &bytes.m);
  EXPECT_EQ(bytes.values, (std::vector<std::uint8_t>{144, 200}));

  const std::int16_t two_s16 = 2;
  Filled<std::int16_t> halves(OX_S16, 1, 2, {20000, -20000});
  ox_mat_scale(&two_s16, &halves.m, &halves.m);
  EXPECT_EQ(halves.values, (std::vector<std::int16_t>{-25536, 25536}));

  // 65535 * 65535 does not fit an int.
  const std::uint16_t most_u16 = 65535;
  Filled<std::uint16_t> unsigned_halves(OX_U16, 1, 2, {65535, 2});
  ox_mat_scale(&most_u16, &unsigned_halves.m, &unsigned_halves.m);
  EXPECT_EQ(unsigned_halves.values, (std::vector<std::uint16_t>{1, 65534}));

  const std::int64_t factor = 4294967299;  // 2^32 + 3
  Filled<std::int64_t> longs(OX_S64, 1, 2, {4294967296, -5});
  ox_mat_scale(&factor, &longs.m, &longs.m);
  EXPECT_EQ(longs.values, (std::vector<std::int64_t>{12884901888, -21474836495}));
}

TEST(MatScale, NegatesByMinusOne) {
  const std::int32_t minus_one = -1;
  const std::int32_t min = std::numeric_limits<std::int32_t>::min();
  Filled<std::int32_t> words(OX_S32, 2, 2, {1, -7, 0, min});
  ox_mat_scale(&minus_one, &words.m, &words.m);
  EXPECT_EQ(words.values, (std::vector<std::int32_t>{-1, 7, 0, min}));
}

TEST(MatScale, RoundsOnceInTheOwnType) {
  const float factor = 4097.0f;
  Filled<float> singles(OX_F32, 1, 1, {4097.0f});
  ox_mat_scale(&factor, &singles.m, &singles.m);
  EXPECT_EQ(singles.values[0], 16785408.0f);
}

TEST(MatScale, ReadsTheFactorOnceBeforeTheLoop) {
  Filled<std::int32_t> words(OX_S32, 1, 6, {3, 2, 10, 100, 1000, -1});
  ox_mat_scale(&words.values[1], &words.m, &words.m);  // the factor is itself doubled on the way
  EXPECT_EQ(words.values, (std::vector<std::int32_t>{6, 4, 20, 200, 2000, -2}));

  std::vector<std::uint8_t> bytes(150, 1);
  bytes[20] = 2;
  Filled<std::uint8_t> many(OX_U8, 1, 150, bytes);
  ox_mat_scale(&many.values[20], &many.m, &many.m);
  for (std::size_t i = 0; i < many.values.size(); ++i) EXPECT_EQ(many.values[i], i == 20 ? 4 : 2) << i;
}

TEST(MatNegAndScale, RefuseTypesThatDifferOnlyInChannels) {
  const float factor = 2.0f;
  const Filled<float> src(OX_F32, 2, 2, {1, 2, 3, 4});
  Filled<float> dst(OX_TYPE(OX_F32, 2), 2, 2, {9, 9, 9, 9, 9, 9, 9, 9});
  EXPECT_EQ(dst.m.type, 13u);
  ox_mat_neg(&src.m, &dst.m);
  ox_mat_scale(&factor, &src.m, &dst.m);
  EXPECT_EQ(dst.values, std::vector<float>(8, 9.0f));
}

TEST(MatNegAndScale, ReadAndWritePackedRunsWhateverTheSteps) {
  const float factor = 2.0f;
  Filled<float> src(OX_F32, 2, 2, {1, 2, 3, 4, 50, 60});
  Filled<float> dst(OX_F32, 2, 2, {9, 9, 9, 9, 9, 9});
  src.m.step = 12;
  dst.m.step = 16;
  ox_mat_neg(&src.m, &dst.m);
  EXPECT_EQ(dst.values, (std::vector<float>{-1, -2, -3, -4, 9, 9}));
  ox_mat_scale(&factor, &src.m, &dst.m);
  EXPECT_EQ(dst.values, (std::vector<float>{2, 4, 6, 8, 9, 9}));
}

// Products around the smallest normal number and below it, where a vector unit without subnormals shows.
template <class D>
class ScaleOfFloats : public testing::Test {};
TYPED_TEST_SUITE(ScaleOfFloats, support::FloatDepths, support::DepthName);

TYPED_TEST(ScaleOfFloats, HonoursSubnormalSourcesFactorsAndProducts) {
  using T = typename TypeParam::Scalar;
  constexpr std::int32_t smallest = std::numeric_limits<T>::min_exponent - 1;
  constexpr std::int32_t digits = std::numeric_limits<T>::digits;
  support::Random random(2109);
  support::GuardedPages from(1024), to(1024);
  for (std::int32_t target = smallest - digits - 4; target <= smallest + 6; ++target) {
    for (int i = 0; i < support::scaled(64); ++i) {
      const std::int32_t n = random.between(1, 40);
      const auto count = static_cast<std::size_t>(n);
      const std::int32_t factor_exponent = random.between(smallest - digits, random.one_in(2) ? 0 : -smallest);
      unsigned char factor[8];
      support::store_float(random, TypeParam::kType, factor, factor_exponent);
      unsigned char* const src = from.place(count * sizeof(T), support::any_placement(random, TypeParam::kType));
      unsigned char* const dst = to.place(count * sizeof(T), support::any_placement(random, TypeParam::kType));
      // A single odd one out must be seen as well as a run of them.
      const std::int32_t most = random.one_in(2) ? target : target + 60;
      support::fill_exponents(random, TypeParam::kType, src, count, most - factor_exponent - 2,
                              most - factor_exponent);
      support::store_float(random, TypeParam::kType, src + random.below(count) * sizeof(T),
                           target - factor_exponent);
      const ox_mat_t source = header(TypeParam::kType, 1, n, src);
      ox_mat_t destination = header(TypeParam::kType, 1, n, dst);
      support::Twin expected(dst, count * sizeof(T));
      ox_mat_scale(factor, &source, &destination);
      reference::scale(factor, plain(source), plain(destination, expected.at(dst)));
      ASSERT_TRUE(same_values(TypeParam::kType, dst, expected.data(), count)) << random << "exponent " << target;
    }
  }
}

}  // namespace
