// SPDX-License-Identifier: MIT
#include "support.h"

namespace {

using support::Data;
using support::Filled;
using support::header;
using support::Placement;
using support::plain;
using support::same_bytes;

template <class D>
class TransposeOfEveryDepth : public testing::Test {};
TYPED_TEST_SUITE(TransposeOfEveryDepth, support::EveryDepth, support::DepthName);

TYPED_TEST(TransposeOfEveryDepth, MatchesPlainLoopForEveryShapeAndChannelCount) {
  support::Random random(2301);
  support::GuardedPages from(262144), to(262144);
  const auto check = [&](std::int32_t rows, std::int32_t cols, int channels, Placement source_at,
                         Placement target_at) {
    const std::uint32_t type = support::with_high_bits(random, OX_TYPE(TypeParam::kType, channels));
    const std::size_t count =
        static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols) * static_cast<std::size_t>(channels);
    const std::size_t bytes = count * sizeof(typename TypeParam::Scalar);
    unsigned char* const source = from.place(bytes, source_at);
    unsigned char* const target = to.place(bytes, target_at);
    support::fill(random, type, source, count, Data::kHostile);
    support::fill(random, type, target, count, Data::kTame);
    ox_mat_t src = header(type, rows, cols, source);
    ox_mat_t dst = header(type, cols, rows, target);
    src.step = random.between(-100, 100);  // never read
    dst.step = random.between(-100, 100);
    support::Twin expected(target, bytes);
    const support::Unchanged source_kept(source, bytes);
    ox_mat_transpose(&src, &dst);
    reference::transpose(plain(src), plain(dst, expected.at(target)));
    ASSERT_TRUE(same_bytes(target, expected.data(), bytes)) << random << rows << 'x' << cols << 'x' << channels;
    ASSERT_TRUE(to.intact()) << random << rows << 'x' << cols << 'x' << channels;
    ASSERT_TRUE(source_kept.check()) << random << rows << 'x' << cols << 'x' << channels;
  };
  const Placement at_end = {Placement::kAtEnd, 0};
  for (int channels = 1; channels <= 32; ++channels)
    for (std::int32_t rows = 1; rows <= 5; ++rows)
      for (std::int32_t cols = 1; cols <= 5; ++cols) check(rows, cols, channels, at_end, at_end);
  // Tiles of up to 64 x 64 scalars and what is left beside them.
  for (std::int32_t n = 1; n <= 70; ++n) {
    const Placement anywhere = support::any_placement(random, TypeParam::kType);
    check(n, n, 1, anywhere, at_end);
    check(n, random.between(1, 70), 1, at_end, anywhere);
    check(random.between(1, 70), n, 1, anywhere, anywhere);
  }
  // More columns than are taken at once, for rows of dst that are a KiB apart and others.
  constexpr std::int32_t kKiB = 1024 / sizeof(typename TypeParam::Scalar);
  for (const std::int32_t rows : {kKiB - 1, kKiB, kKiB + 1})
    for (const std::int32_t cols : {63, 64, 65, 129, 137})
      check(rows, cols, 1, support::any_placement(random, TypeParam::kType), at_end);
  for (int i = 0; i < support::scaled(200); ++i)
    check(random.between(1, 30), random.between(1, 30), random.between(1, 8),
          support::any_placement(random, TypeParam::kType), support::any_placement(random, TypeParam::kType));
}

TYPED_TEST(TransposeOfEveryDepth, MatchesPlainLoopForEveryOverlap) {
  support::Random random(2302);
  // At most 20 x 20 scalars or 5 x 5 elements of 32, and 1024 bytes on either side.
  std::vector<unsigned char> memory(2048 + 800 * sizeof(typename TypeParam::Scalar));
  for (const std::ptrdiff_t distance : support::overlap_distances(TypeParam::kType)) {
    for (int i = 0; i < 2 + support::scaled(8); ++i) {
      const int channels = random.one_in(3) ? random.between(2, 32) : 1;
      const std::int32_t most = channels == 1 ? 20 : 5;
      const std::int32_t rows = random.between(1, most);
      const std::int32_t cols = random.one_in(3) ? rows : random.between(1, most);
      const std::uint32_t type = OX_TYPE(TypeParam::kType, channels);
      support::fill(random, type, memory.data(), memory.size() / reference::scalar_size(type), Data::kHostile);
      unsigned char* const source =
          memory.data() + 1024 + support::alignment(type) * random.below(64 / support::alignment(type));
      const ox_mat_t src = header(type, rows, cols, source);
      ox_mat_t dst = header(type, cols, rows, source + distance);
      support::Twin expected(memory.data(), memory.size());
      ox_mat_transpose(&src, &dst);
      reference::transpose(plain(src, expected.at(src.data)), plain(dst, expected.at(dst.data)));
      ASSERT_TRUE(same_bytes(memory.data(), expected.data(), memory.size()))
          << random << rows << 'x' << cols << 'x' << channels << ", destination " << distance
          << " bytes behind the source";
    }
  }
}

TYPED_TEST(TransposeOfEveryDepth, MatchesPlainLoopWhenTheEndOfOneMeetsTheStartOfTheOther) {
  support::Random random(2303);
  constexpr std::size_t size = sizeof(typename TypeParam::Scalar);
  std::vector<unsigned char> memory(128 + 2 * 33 * 33 * size);
  for (std::int32_t n = 1; n <= 33; ++n) {
    const std::size_t bytes = static_cast<std::size_t>(n * n) * size;
    for (const std::size_t shared : {std::size_t{0}, std::size_t{1}, static_cast<std::size_t>(n)}) {
      support::fill(random, TypeParam::kType, memory.data(), memory.size() / size, Data::kHostile);
      unsigned char* const first = memory.data() + 64;
      unsigned char* const second = first + bytes - shared * size;
      for (const bool forward : {true, false}) {
        const ox_mat_t src = header(TypeParam::kType, n, n, forward ? first : second);
        ox_mat_t dst = header(TypeParam::kType, n, n, forward ? second : first);
        support::Twin expected(memory.data(), memory.size());
        ox_mat_transpose(&src, &dst);
        reference::transpose(plain(src, expected.at(src.data)), plain(dst, expected.at(dst.data)));
        ASSERT_TRUE(same_bytes(memory.data(), expected.data(), memory.size()))
            << random << n << ' ' << shared << ' ' << forward;
      }
    }
  }
}

TYPED_TEST(TransposeOfEveryDepth, MirrorsTheUpperTriangleWhenASquareMatrixIsItsOwnDestination) {
  using T = typename TypeParam::Scalar;
  for (const std::size_t n : {1u, 2u, 3u, 4u, 8u, 11u}) {
    std::vector<T> values(n * n);
    for (std::size_t i = 0; i < n * n; ++i) values[i] = static_cast<T>(i + 1);
    const auto side = static_cast<std::int32_t>(n);
    Filled<T> m(TypeParam::kType, side, side, values);
    ox_mat_transpose(&m.m, &m.m);
    for (std::size_t r = 0; r < n; ++r)
      for (std::size_t c = 0; c < n; ++c)
        EXPECT_EQ(m.values[r * n + c], values[std::min(r, c) * n + std::max(r, c)]) << n << ": " << r << ',' << c;
  }
}

TYPED_TEST(TransposeOfEveryDepth, LeavesDstUntouchedWhenItDoesNotFit) {
  unsigned char source[512], target[512];
  std::memset(source, 1, sizeof source);
  std::memset(target, 9, sizeof target);
  const support::Unchanged untouched(target, sizeof target);
  constexpr std::uint32_t type = TypeParam::kType;
  const ox_mat_t src = header(type, 2, 3, source);
  const ox_mat_t refused[] = {header(type, 2, 3, target),  // not mirrored
                              header(type, 3, 3, target),
                              header(type, 2, 2, target),
                              header(type, 6, 1, target),
                              header(type ^ 1u, 3, 2, target),
                              header(OX_TYPE(type, 2), 3, 2, target),
                              header(type | 0x100u, 3, 2, target),
                              header(type | 0x80000000u, 3, 2, target)};
  for (ox_mat_t dst : refused) {
    ox_mat_transpose(&src, &dst);
    EXPECT_TRUE(untouched.check()) << std::hex << dst.type << ' ' << dst.rows << 'x' << dst.cols;
  }
}

TYPED_TEST(TransposeOfEveryDepth, TouchesNothingOfAnEmptyMatrix) {
  const std::int32_t shapes[][2] = {{0, 0}, {0, 3}, {3, 0}, {-1, 3}, {3, -1}, {-2, -2}};
  for (const auto& shape : shapes) {
    const ox_mat_t src = header(TypeParam::kType, shape[0], shape[1], nullptr);
    unsigned char target[64] = {4, 5, 6};
    const support::Unchanged untouched(target, sizeof target);
    ox_mat_t dst = header(TypeParam::kType, shape[1], shape[0], target);
    ox_mat_transpose(&src, &dst);
    EXPECT_TRUE(untouched.check()) << shape[0] << 'x' << shape[1];
  }
}

// ---------------------------------------------------------------------------------------------- by name

TEST(MatTranspose, TurnsRowsIntoColumns) {
  const Filled<float> src(OX_F32, 2, 3, {1, 2, 3, 4, 5, 6});
  Filled<float> dst(OX_F32, 3, 2, std::vector<float>(7, 9));
  ox_mat_transpose(&src.m, &dst.m);
  EXPECT_EQ(dst.values, (std::vector<float>{1, 4, 2, 5, 3, 6, 9}));
}

TEST(MatTranspose, TurnsARowIntoAColumnOfTheSameBytes) {
  for (std::int32_t n = 1; n <= 40; ++n) {
    std::vector<std::int32_t> values(static_cast<std::size_t>(n));
    for (std::size_t i = 0; i < values.size(); ++i) values[i] = static_cast<std::int32_t>(i * i) - 7;
    const Filled<std::int32_t> src(OX_S32, 1, n, values);
    Filled<std::int32_t> dst(OX_S32, n, 1, std::vector<std::int32_t>(values.size(), 9));
    ox_mat_transpose(&src.m, &dst.m);
    EXPECT_EQ(dst.values, values);
  }
}

TEST(MatTranspose, KeepsTheChannelsOfAnElementTogether) {
  const Filled<std::int16_t> src(OX_TYPE(OX_S16, 2), 2, 2, {10, 11, 20, 21, 30, 31, 40, 41});
  Filled<std::int16_t> dst(OX_TYPE(OX_S16, 2), 2, 2, std::vector<std::int16_t>(8, 9));
  ox_mat_transpose(&src.m, &dst.m);
  EXPECT_EQ(dst.values, (std::vector<std::int16_t>{10, 11, 30, 31, 20, 21, 40, 41}));
}

TEST(MatTranspose, KeepsTheBitsOfNaNsAndNegativeZeros) {
  const std::vector<std::uint32_t> singles = {0x7F812345u, 0x80000000u, 0xFFC54321u, 0x00000001u};
  const Filled<std::uint32_t> src32(OX_F32, 2, 2, singles);
  Filled<std::uint32_t> dst32(OX_F32, 2, 2, {9, 9, 9, 9});
  ox_mat_transpose(&src32.m, &dst32.m);
  EXPECT_EQ(dst32.values, (std::vector<std::uint32_t>{singles[0], singles[2], singles[1], singles[3]}));

  const std::vector<std::uint64_t> doubles = {0x7FF0123456789ABCu, 0x8000000000000000u};
  const Filled<std::uint64_t> src64(OX_F64, 1, 2, doubles);
  Filled<std::uint64_t> dst64(OX_F64, 2, 1, {9, 9});
  ox_mat_transpose(&src64.m, &dst64.m);
  EXPECT_EQ(dst64.values, doubles);
}

}  // namespace
