// SPDX-License-Identifier: MIT
// OX_TEST_WIDTH=16, 32 or 64 makes the library use vectors of so many bytes, where the processor has them, or the
// build emulates them. The library itself reads no environment: the hook is a hidden symbol of the archive.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "widths.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
#if defined(__x86_64__)
  if (const char* width = std::getenv("OX_TEST_WIDTH")) {
    const ox::Kernels* kernels = kernels_for_test(std::atoi(width));
    if (kernels->bytes != std::atoi(width)) {
      std::printf("this processor has no vectors of %s bytes: skipped\n", width);
      return 77;
    }
    ox::chosen_kernels = kernels;
  }
#endif
  return RUN_ALL_TESTS();
}
