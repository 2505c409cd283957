// SPDX-License-Identifier: MIT
#include "rivals/load.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace bench {
namespace {

void* open(const std::string& file) {
  // DEEPBIND: two copies of OpenBLAS must each find their own symbols.
  void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
  if (!library) {
    std::fprintf(stderr, "%s\n", dlerror());
    std::exit(1);
  }
  return library;
}

template <class Function> void find(void* library, const char* name, Function*& function) {
  function = reinterpret_cast<Function*>(dlsym(library, name));
  if (!function) {
    std::fprintf(stderr, "%s\n", dlerror());
    std::exit(1);
  }
}

bool has_avx512() {
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512cd") && __builtin_cpu_supports("avx512dq") &&
         __builtin_cpu_supports("avx512vl");
}
bool has_avx2() {
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && __builtin_cpu_supports("bmi2");
}

OpenBlas open_openblas(const std::string& file) {
  void* library = open(file);
  char* (*core)();
  void (*set_threads)(int);
  OpenBlas blas;
  find(library, "openblas_get_corename", core);
  find(library, "openblas_set_num_threads", set_threads);
  find(library, "cblas_sgemm", blas.sgemm);
  find(library, "sgetrf_", blas.sgetrf);
  find(library, "sgetri_", blas.sgetri);
  set_threads(1);
  blas.column = std::string("openblas ") + core();
  return blas;
}

std::vector<OpenBlas> open_both() {
  setenv("OPENBLAS_NUM_THREADS", "1", 1);
  std::vector<OpenBlas> all{open_openblas(OX_BENCH_OPENBLAS)};
  if (has_avx512()) {
    setenv("OPENBLAS_CORETYPE", "SKYLAKEX", 1);
    OpenBlas second = open_openblas(OX_BENCH_DIR "/openblas_second.so");
    if (second.column != all[0].column) all.push_back(second);
  }
  return all;
}

}  // namespace

const Rivals* rivals(const std::string& name) {
  if ((name == "avx2" && !has_avx2()) || (name == "avx512" && !has_avx512())) return nullptr;
  const Rivals* (*table)();
  find(open(OX_BENCH_DIR "/ox_rivals_" + name + ".so"), "ox_bench_rivals", table);
  return table();
}

const std::vector<OpenBlas>& openblas() {
  static const std::vector<OpenBlas> all = open_both();
  return all;
}

}  // namespace bench
