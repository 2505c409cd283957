// SPDX-License-Identifier: MIT
// ARMv7: elements of 8 bytes behind a 20-byte header are aligned to 4. The emulator traps an access that promises more,
// so the other tests, whose operands stand at such addresses, would notice one.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>

namespace {

alignas(16) unsigned char bytes[64];

void load_with_hint(const unsigned char* p) {
  asm volatile("vld1.64 {d0}, [%0:64]" : : "r"(p) : "d0", "memory");
}

void load_double_word(const unsigned char* p) {
  asm volatile("vldr d0, [%0]" : : "r"(p) : "d0", "memory");
}

}  // namespace

TEST(Alignment, EmulatorAcceptsAHintThatHolds) { load_with_hint(bytes + 8); }
TEST(Alignment, EmulatorAcceptsAWordAlignedDouble) { load_double_word(bytes + 4); }
TEST(AlignmentDeathTest, EmulatorTrapsAHintThatDoesNotHold) {
  EXPECT_EXIT(load_with_hint(bytes + 4), testing::KilledBySignal(SIGBUS), "");
}
