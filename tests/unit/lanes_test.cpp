// SPDX-License-Identifier: MIT
// Which lanes are in use: so that a green run is known to be a run of the vectors it is meant for.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "kernels/kernels.h"

#if defined(__x86_64__)
namespace {

int widest_in_cpuinfo() {
  std::ifstream in("/proc/cpuinfo");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("flags", 0) == 0) {
      const auto has = [&](const char* flag) { return (line + ' ').find(' ' + std::string(flag) + ' ') != std::string::npos; };
      if (has("avx512f") && has("avx512bw") && has("avx512dq") && has("avx512vl")) return 64;
      return has("avx2") ? 32 : 16;
    }
  return 16;
}

}  // namespace

// What the compiler's run time has found out about the processor, and asks the processor for only once.
extern "C" struct {
  unsigned vendor, type, subtype, features;
} __cpu_model;

TEST(Lanes, WidthIsChosenOnlyWithAllItNeeds) {
  constexpr unsigned kAvx2 = 1u << 10, kAvx512[] = {1u << 15, 1u << 20, 1u << 21, 1u << 22};  // F, VL, BW, DQ
  const unsigned all = kAvx512[0] | kAvx512[1] | kAvx512[2] | kAvx512[3] | kAvx2;
  const unsigned real = __cpu_model.features;
  const auto bytes = [](unsigned features, int most) {
    __cpu_model.features = features;
    return ox::kernels_of(most)->bytes;
  };
  EXPECT_EQ(bytes(all, 64), 64);
  for (const unsigned feature : kAvx512) EXPECT_EQ(bytes(all & ~feature, 64), 32) << feature;
  EXPECT_EQ(bytes(all, 63), 32);
  EXPECT_EQ(bytes(all, 31), 16);
  EXPECT_EQ(bytes(kAvx2, 64), 32);
  EXPECT_EQ(bytes(0, 64), 16);
  __cpu_model.features = real;
}
#endif

// OX_EXPECT_WIDTH is set where the processor is an emulated one, which /proc/cpuinfo does not show.
TEST(Lanes, WidestOfTheProcessorIsChosenAtLoad) {
  if (std::getenv("OX_TEST_WIDTH")) GTEST_SKIP() << "a width was asked for";
  const char* expected = std::getenv("OX_EXPECT_WIDTH");
#if defined(__x86_64__)
  EXPECT_EQ(ox::kernels().bytes, expected ? std::atoi(expected) : widest_in_cpuinfo());
#else
  EXPECT_EQ(ox::kernels().bytes, 16);
  EXPECT_EQ(expected, nullptr);
#endif
}

TEST(Lanes, WidthAskedForIsInUse) {
  const char* width = std::getenv("OX_TEST_WIDTH");
  if (!width) GTEST_SKIP() << "no width was asked for";
  EXPECT_EQ(ox::kernels().bytes, std::atoi(width));
}

#if defined(__arm__) && defined(__ARM_NEON)
namespace {

constexpr uint32_t kInputFlushed = 1u << 7;
constexpr uint32_t kNobodysBusiness = 7u;  // invalid operation, division by zero, overflow: nothing here sets them

uint32_t flags() {
  uint32_t fpscr;
  asm volatile("vmrs %0, fpscr" : "=r"(fpscr)::"memory");
  return fpscr;
}

void set_flags(uint32_t fpscr) { asm volatile("vmsr fpscr, %0" ::"r"(fpscr) : "memory"); }

}  // namespace

// NEON says so when it flushes an operand; the scalar unit honours it and has nothing to say.
TEST(Lanes, NeonTellsOfAFlushedOperand) {
  const float subnormal[4] = {1e-40f, 1e-40f, 1e-40f, 1e-40f};
  float sum[4];
  set_flags(flags() & ~kInputFlushed);
  asm volatile("vld1.32 {q0}, [%0]\n vadd.f32 q0, q0, q0\n vst1.32 {q0}, [%1]" ::"r"(subnormal), "r"(sum) : "q0", "memory");
  EXPECT_EQ(sum[0], 0.0f);
  EXPECT_NE(flags() & kInputFlushed, 0u);
}

TEST(Lanes, CallersFlagsComeBack) {
  float a[64], b[64], d[64];
  for (int i = 0; i < 64; ++i) a[i] = b[i] = i % 7 ? 1.0f : 1e-40f;
  ox_mat_t A, B, D;
  ox_mat_initheader(&A, 8, 8, OX_F32, a);
  ox_mat_initheader(&B, 8, 8, OX_F32, b);
  ox_mat_initheader(&D, 8, 8, OX_F32, d);
  const uint32_t before = flags();
  for (const uint32_t bits : {0u, kInputFlushed, kNobodysBusiness, kInputFlushed | kNobodysBusiness}) {
    const uint32_t mask = kInputFlushed | kNobodysBusiness;
    set_flags((before & ~mask) | bits);
    ox_mat_mul(&A, &B, &D, 0);
    EXPECT_EQ(flags() & mask, bits);
    ox_mat_add(&A, &B, &D);
    EXPECT_EQ(flags() & mask, bits);
  }
  set_flags(before);
}
#endif
