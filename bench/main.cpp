// SPDX-License-Identifier: MIT
#include "contest.h"

int main(int argc, char** argv) {
  benchmark::AddCustomContext("compiler", OX_BENCH_COMPILER);
  benchmark::AddCustomContext("flags", OX_BENCH_FLAGS);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  bench::register_contests();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
