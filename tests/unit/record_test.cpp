// SPDX-License-Identifier: MIT
#include <cstdio>
#include <cstdlib>

#include "alloc_hook.h"
#include "support.h"

namespace {

using support::header;
using support::plain;

std::string printed(const char* name, const ox_mat_t& m) {
  std::fflush(stdout);
  testing::internal::CaptureStdout();
  ox_mat_print(name, &m);
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

// ------------------------------------------------------------------------------------------- the record

TEST(MatRecord, HasItsFieldsInOrderWithoutGaps) {
  EXPECT_EQ(offsetof(ox_mat_t, type), 0u);
  EXPECT_EQ(offsetof(ox_mat_t, rows), 4u);
  EXPECT_EQ(offsetof(ox_mat_t, cols), 8u);
  EXPECT_EQ(offsetof(ox_mat_t, step), 12u);
  EXPECT_EQ(offsetof(ox_mat_t, data), 16u);
  EXPECT_EQ(sizeof(ox_mat_t), 16u + sizeof(void*));
}

TEST(MatRecord, NumbersTheDepths) {
  EXPECT_EQ(OX_U8, 0u);
  EXPECT_EQ(OX_S8, 1u);
  EXPECT_EQ(OX_U16, 2u);
  EXPECT_EQ(OX_S16, 3u);
  EXPECT_EQ(OX_S32, 4u);
  EXPECT_EQ(OX_F32, 5u);
  EXPECT_EQ(OX_S64, 6u);
  EXPECT_EQ(OX_F64, 7u);
  EXPECT_EQ(OX_TYPE(OX_F32, 1), 5u);
  EXPECT_EQ(OX_TYPE(OX_F32, 2), 13u);
  EXPECT_EQ(OX_TYPE(OX_F64, 32), 255u);
}

// ----------------------------------------------------------------------------------------- initheader

TEST(MatInitHeader, ReturnsNullForANullHeader) {
  int element = 7;
  EXPECT_EQ(ox_mat_initheader(nullptr, 1, 1, OX_S32, &element), nullptr);
  EXPECT_EQ(element, 7);
}

TEST(MatInitHeader, ReturnsTheHeaderAndStoresTheFieldsAsGiven) {
  float elements[6] = {1, 2, 3, 4, 5, 6};
  const support::Unchanged untouched(elements, sizeof elements);
  ox_mat_t m;
  std::memset(&m, 0xA5, sizeof m);
  EXPECT_EQ(ox_mat_initheader(&m, 2, 3, OX_F32, elements), &m);
  EXPECT_EQ(m.type, OX_F32);
  EXPECT_EQ(m.rows, 2);
  EXPECT_EQ(m.cols, 3);
  EXPECT_EQ(m.step, 12);
  EXPECT_EQ(m.data, elements);
  EXPECT_TRUE(untouched.check());
}

TEST(MatInitHeader, TakesThePackedRowLengthAsStepForEveryType) {
  const int sizes[8] = {1, 1, 2, 2, 4, 4, 8, 8};
  for (std::uint32_t depth = 0; depth < 8; ++depth) {
    for (int channels = 1; channels <= 32; ++channels) {
      for (const int cols : {0, 1, 5, 1000}) {
        ox_mat_t m;
        ox_mat_initheader(&m, 3, cols, OX_TYPE(depth, channels), nullptr);
        EXPECT_EQ(m.step, cols * channels * sizes[depth]) << depth << ' ' << channels << ' ' << cols;
      }
    }
  }
}

TEST(MatInitHeader, StoresNegativeSizesAndMakesTheStepNegative) {
  ox_mat_t m;
  EXPECT_EQ(ox_mat_initheader(&m, -4, -3, OX_TYPE(OX_S16, 5), nullptr), &m);
  EXPECT_EQ(m.rows, -4);
  EXPECT_EQ(m.cols, -3);
  EXPECT_EQ(m.step, -30);
  EXPECT_EQ(m.data, nullptr);
}

TEST(MatInitHeader, KeepsTheHighBitsOfTheTypeOutOfTheStep) {
  ox_mat_t m;
  ox_mat_initheader(&m, 1, 2, 0xABCDEF00u | OX_TYPE(OX_F64, 3), nullptr);
  EXPECT_EQ(m.type, 0xABCDEF00u | OX_TYPE(OX_F64, 3));
  EXPECT_EQ(m.step, 48);
}

TEST(MatInitHeader, WrapsTheStepIn32Bits) {
  ox_mat_t m;
  ox_mat_initheader(&m, 1, 0x01000001, OX_TYPE(OX_F64, 32), nullptr);  // 2^24 + 1 elements of 256 bytes
  EXPECT_EQ(m.step, 256);
  ox_mat_initheader(&m, 1, 0x00800000, OX_TYPE(OX_F64, 32), nullptr);
  EXPECT_EQ(m.step, std::numeric_limits<std::int32_t>::min());
}

// ---------------------------------------------------------------------------------- create and release

class MatCreate : public testing::Test {
 protected:
  void TearDown() override { alloc_hook::reset(); }
};
class MatRelease : public MatCreate {};

TEST_F(MatCreate, MakesOneBlockWithTheElementsDirectlyBehindTheHeader) {
  alloc_hook::reset();
  ox_mat_t* const m = ox_mat_create(3, 4, OX_TYPE(OX_U8, 3));
  const long calls = alloc_hook::calls();
  const std::size_t bytes = alloc_hook::last_size();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(bytes, sizeof(ox_mat_t) + 36);
  EXPECT_EQ(m->type, OX_TYPE(OX_U8, 3));
  EXPECT_EQ(m->rows, 3);
  EXPECT_EQ(m->cols, 4);
  EXPECT_EQ(m->step, 12);
  EXPECT_EQ(m->data, m + 1);
  std::memset(m->data, 0x5A, 36);
  ox_mat_release(m);
}

TEST_F(MatCreate, SizesTheBlockForEveryType) {
  const std::size_t sizes[8] = {1, 1, 2, 2, 4, 4, 8, 8};
  for (std::uint32_t depth = 0; depth < 8; ++depth) {
    for (const std::size_t channels : {1u, 2u, 31u, 32u}) {
      alloc_hook::reset();
      ox_mat_t* const m = ox_mat_create(5, 7, OX_TYPE(depth, channels) | 0x55555500u);
      const std::size_t bytes = alloc_hook::last_size();
      ASSERT_NE(m, nullptr);
      EXPECT_EQ(bytes, sizeof(ox_mat_t) + 35 * channels * sizes[depth]) << depth << ' ' << channels;
      EXPECT_EQ(m->type, OX_TYPE(depth, channels) | 0x55555500u);
      ox_mat_release(m);
    }
  }
}

TEST_F(MatCreate, MakesAHeaderAloneForAnEmptyMatrix) {
  alloc_hook::reset();
  ox_mat_t* const m = ox_mat_create(0, 5, OX_F32);
  const std::size_t bytes = alloc_hook::last_size();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(bytes, sizeof(ox_mat_t));
  EXPECT_EQ(m->rows, 0);
  EXPECT_EQ(m->cols, 5);
  EXPECT_EQ(m->step, 20);
  EXPECT_EQ(m->data, m + 1);
  ox_mat_release(m);
  EXPECT_EQ(alloc_hook::live(), 0);
}

TEST_F(MatCreate, ReturnsNullWhenTheAllocationFails) {
  alloc_hook::reset();
  alloc_hook::fail_from(1, 1);
  ox_mat_t* const m = ox_mat_create(3, 3, OX_F32);
  const long calls = alloc_hook::calls();
  EXPECT_EQ(m, nullptr);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(alloc_hook::live(), 0);
}

TEST_F(MatCreate, CountsTheSizeModulo32Bits) {
  alloc_hook::reset();
  ox_mat_t* const m = ox_mat_create(65537, 65536, OX_U8);  // 2^32 + 65536 elements
  const std::size_t bytes = alloc_hook::last_size();
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(bytes, sizeof(ox_mat_t) + 65536);
  EXPECT_EQ(m->rows, 65537);
  EXPECT_EQ(m->cols, 65536);
  ox_mat_release(m);
}

TEST_F(MatCreate, AsksForLargeBlocksAsTheyAre) {
  alloc_hook::reset();
  alloc_hook::fail_from(1, 1);
  ox_mat_t* const m =
      ox_mat_create(3, 0x10000000, OX_TYPE(OX_U8, 5));  // 15 * 2^28, more than a signed number holds
  const std::size_t bytes = alloc_hook::last_size();
  EXPECT_EQ(m, nullptr);
  EXPECT_EQ(bytes, sizeof(ox_mat_t) + 0xF0000000u);
}

TEST_F(MatCreate, NeverMakesABlockSmallerThanTheHeader) {
  for (const std::int32_t missing : {1, 2, 15, 19, 20, 23, 24, 1000}) {
    // 2^32 - missing bytes of elements: header and elements together wrap to less than a header, but for
    // 1000, where the sum does not wrap and is too much to ask for.
    alloc_hook::reset();
    if (missing > static_cast<std::int32_t>(sizeof(ox_mat_t))) alloc_hook::fail_from(1, 1);
    ox_mat_t* const m = ox_mat_create(-missing, 1, OX_U8);
    const std::size_t bytes = alloc_hook::last_size();
    if (missing > static_cast<std::int32_t>(sizeof(ox_mat_t))) {
      EXPECT_EQ(m, nullptr);
      EXPECT_EQ(bytes, sizeof(ox_mat_t) + (0u - static_cast<std::uint32_t>(missing))) << missing;
      continue;
    }
    ASSERT_NE(m, nullptr) << missing;
    EXPECT_EQ(bytes, sizeof(ox_mat_t)) << missing;
    EXPECT_EQ(m->rows, -missing);
    EXPECT_EQ(m->data, m + 1);
    ox_mat_release(m);
  }
}

TEST_F(MatRelease, GivesTheBlockBackInOneCall) {
  alloc_hook::reset();
  ox_mat_t* const m = ox_mat_create(2, 2, OX_F64);
  const long live_before = alloc_hook::live();
  ox_mat_release(m);
  const long live_after = alloc_hook::live();
  EXPECT_EQ(live_before, 1);
  EXPECT_EQ(live_after, 0);
}

TEST_F(MatRelease, AcceptsNull) {
  alloc_hook::reset();
  ox_mat_release(nullptr);
  EXPECT_EQ(alloc_hook::live(), 0);
}

TEST_F(MatRelease, LeavesAHeaderOverOtherMemoryAlone) {
  // In one record, so that no compiler lays the elements directly behind the header, which would make them owned.
  struct {
    ox_mat_t m;
    float between;
    float elements[4];
  } caller = {{}, 9, {1, 2, 3, 4}};
  ox_mat_initheader(&caller.m, 2, 2, OX_F32, caller.elements);
  const support::Unchanged kept(&caller, sizeof caller);
  alloc_hook::reset();
  ox_mat_release(&caller.m);
  const long live = alloc_hook::live();
  EXPECT_EQ(live, 0);
  EXPECT_TRUE(kept.check());
}

TEST_F(MatRelease, LeavesACreatedMatrixAloneOnceItsDataPointsElsewhere) {
  alloc_hook::reset();
  ox_mat_t* const m = ox_mat_create(2, 2, OX_S32);
  ASSERT_NE(m, nullptr);
  m->data = static_cast<std::int32_t*>(m->data) + 1;
  ox_mat_release(m);
  const long live_moved = alloc_hook::live();
  m->data = m + 1;
  ox_mat_release(m);
  const long live_restored = alloc_hook::live();
  EXPECT_EQ(live_moved, 1);
  EXPECT_EQ(live_restored, 0);
}

TEST_F(MatRelease, FreesACallersHeaderWhoseDataStandsDirectlyBehindIt) {
  alloc_hook::reset();
  auto* const m = static_cast<ox_mat_t*>(std::malloc(sizeof(ox_mat_t) + 16));
  ASSERT_NE(m, nullptr);
  ox_mat_initheader(m, 2, 2, OX_F32, m + 1);
  const long live_before = alloc_hook::live();
  ox_mat_release(m);
  const long live_after = alloc_hook::live();
  EXPECT_EQ(live_before, 1);
  EXPECT_EQ(live_after, 0);
}

// ----------------------------------------------------------------------------------------------- print

TEST(MatPrint, WritesTheNameAndOneLineARow) {
  std::int32_t elements[6] = {1, -2, 30, 400000, std::numeric_limits<std::int32_t>::min(), 6};
  EXPECT_EQ(printed("A", header(OX_S32, 2, 3, elements)),
            "A=\n"
            "           1          -2          30\n"
            "      400000 -2147483648           6\n");
}

TEST(MatPrint, WritesNoHeadingForANullName) {
  std::int32_t element = 5;
  EXPECT_EQ(printed(nullptr, header(OX_S32, 1, 1, &element)), "           5\n");
}

TEST(MatPrint, TakesTheNameAsTextNotAsFormat) {
  std::uint8_t element = 5;
  EXPECT_EQ(printed("%d%s", header(OX_U8, 1, 1, &element)), "%d%s=\n   5\n");
  EXPECT_EQ(printed("", header(OX_U8, 1, 1, &element)), "=\n   5\n");
}

TEST(MatPrint, WritesOnlyTheHeadingForAMatrixWithoutRows) {
  EXPECT_EQ(printed("A", header(OX_F32, 0, 4, nullptr)), "A=\n");
  EXPECT_EQ(printed("A", header(OX_F32, -1, 4, nullptr)), "A=\n");
  EXPECT_EQ(printed(nullptr, header(OX_F32, 0, 4, nullptr)), "");
}

TEST(MatPrint, WritesAnEmptyLineForEachRowWithoutColumns) {
  EXPECT_EQ(printed("A", header(OX_F64, 3, 0, nullptr)), "A=\n\n\n\n");
  EXPECT_EQ(printed(nullptr, header(OX_F64, 2, -2, nullptr)), "\n\n");
}

TEST(MatPrint, ShowsU8AsNumbersAndS8AsCharacters) {
  std::uint8_t numbers[3] = {0, 65, 255};
  EXPECT_EQ(printed(nullptr, header(OX_U8, 1, 3, numbers)), "   0  65 255\n");
  std::int8_t characters[3] = {65, 0, 'z'};
  EXPECT_EQ(printed(nullptr, header(OX_S8, 1, 1, characters)), " A\n");
  EXPECT_EQ(printed(nullptr, header(OX_S8, 1, 3, characters)), std::string(" A \0 z\n", 7));
  std::int8_t negative = -1;
  EXPECT_EQ(printed(nullptr, header(OX_S8, 1, 1, &negative)), " \xFF\n");
}

TEST(MatPrint, ShowsU16AsSigned) {
  std::uint16_t elements[4] = {65535, 32768, 32767, 1};
  EXPECT_EQ(printed(nullptr, header(OX_U16, 1, 4, elements)), "     -1 -32768  32767      1\n");
  EXPECT_EQ(printed(nullptr, header(OX_S16, 1, 4, elements)), "     -1 -32768  32767      1\n");
}

TEST(MatPrint, ShowsSixDecimalsOfFloats) {
  float singles[4] = {1.5f, -0.0f, 1e10f, std::numeric_limits<float>::infinity()};
  EXPECT_EQ(printed(nullptr, header(OX_F32, 1, 4, singles)),
            "   1.500000  -0.000000 10000000000.000000        inf\n");
  double doubles[2] = {-2.0 / 3.0, 1e-9};
  EXPECT_EQ(printed(nullptr, header(OX_F64, 1, 2, doubles)), "  -0.666667   0.000000\n");
}

TEST(MatPrint, ShowsS64InFull) {
  std::int64_t elements[2] = {std::numeric_limits<std::int64_t>::min(), 4294967296};
  EXPECT_EQ(printed(nullptr, header(OX_S64, 1, 2, elements)), " -9223372036854775808  4294967296\n");
}

TEST(MatPrint, ShowsOnlyTheFirstColsScalarsOfARowWithChannels) {
  float elements[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(printed("A", header(OX_TYPE(OX_F32, 2), 2, 2, elements)),
            "A=\n"
            "   1.000000   2.000000\n"
            "   5.000000   6.000000\n");
}

TEST(MatPrint, FollowsTheStepBetweenRows) {
  std::int16_t elements[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  ox_mat_t m = header(OX_S16, 2, 2, elements);
  m.step = 8;
  EXPECT_EQ(printed(nullptr, m), "      1      2\n      5      6\n");
  m.step = 9;  // four and a half scalars count as four
  EXPECT_EQ(printed(nullptr, m), "      1      2\n      5      6\n");
  m.step = 0;
  EXPECT_EQ(printed(nullptr, m), "      1      2\n      1      2\n");
  m.data = elements + 4;
  m.step = -7;  // toward zero: three scalars back
  EXPECT_EQ(printed(nullptr, m), "      5      6\n      2      3\n");
}

TEST(MatPrint, LooksOnlyAtTheLowBitsOfTheType) {
  std::uint8_t element = 7;
  EXPECT_EQ(printed(nullptr, header(0xFFFFFF00u | OX_U8, 1, 1, &element)), "   7\n");
}

TEST(MatPrint, WritesTheTextOfThePlainLoopForEveryType) {
  support::Random random(1101);
  std::vector<unsigned char> elements(6 * 8 * 4 * 8 + 8);
  for (int i = 0; i < support::scaled(400); ++i) {
    const auto depth = static_cast<std::uint32_t>(random.between(0, 7));
    const std::uint32_t type = support::with_high_bits(random, OX_TYPE(depth, random.between(1, 4)));
    const std::int32_t rows = random.between(0, 6);
    const std::int32_t cols = random.between(0, 8);
    support::fill(random, depth, elements.data(), elements.size() / reference::scalar_size(type),
                  support::any_kind(random));
    ox_mat_t m = header(type, rows, cols, elements.data() + support::alignment(type) * random.below(2));
    if (random.one_in(3)) m.step = random.between(0, m.step);
    EXPECT_EQ(printed("name", m), reference::print_text("name", plain(m))) << random << i;
  }
}

}  // namespace
