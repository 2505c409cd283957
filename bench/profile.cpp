// SPDX-License-Identifier: MIT
// profile TIMES product|transposed|add|s8|s16|s32 N [BYTES] | TIMES filter: the calls that profile.sh counts, so many
// times within `repeat`. Products of floats, one of a transposed factor; additions of 16-bit integers; products of
// integers, with vectors of so many bytes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "ox.h"

// The library's own hook, which only a static library shows.
namespace ox {
struct Kernels;
extern const Kernels* chosen_kernels;
const Kernels* kernels_of(int bytes);
}  // namespace ox

namespace {

ox_mat_t *a, *b, *dst, *measurement;
ox_kalman_t* filter;

void multiply() { ox_mat_mul(a, b, dst, 0); }
void multiply_transposed() { ox_mat_mul(a, b, dst, OX_MAT_TRANSPOSE_A); }
void add() { ox_mat_add(a, b, dst); }
void cycle() {
  ox_kalman_predict(filter);
  ox_kalman_correct(filter, measurement);
}

__attribute__((noinline)) void repeat(void (*call)(), int times) {
  for (int i = 0; i < times; ++i) call();
}

ox_mat_t* ones(int rows, int cols, uint32_t type) {
  ox_mat_t* const m = ox_mat_create(rows, cols, type);
  if (!m) std::exit(1);
  ox_mat_setone(m);
  return m;
}

void make_filter() {
  filter = ox_kalman_create(8, 4, 0, nullptr, nullptr, nullptr, nullptr);
  if (!filter) std::exit(1);
  for (ox_mat_t* m : {filter->transition_matrix, filter->measurement_matrix, filter->process_noise_cov,
                      filter->measurement_noise_cov, filter->error_cov_post})
    ox_mat_setidentity(m);
  measurement = ones(4, 1, OX_F32);
}

}  // namespace

int main(int argc, char** argv) {
  struct Operation {
    void (*call)();
    uint32_t type;
  };
  const std::map<std::string, Operation> operations = {
      {"product", {multiply, OX_F32}}, {"transposed", {multiply_transposed, OX_F32}}, {"add", {add, OX_S16}},
      {"s8", {multiply, OX_S8}},       {"s16", {multiply, OX_S16}},                   {"s32", {multiply, OX_S32}}};
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const auto operation = operations.find(arguments.size() < 2 ? "" : arguments[1]);
  if (arguments.size() == 2 && arguments[1] == "filter") {
    make_filter();
    repeat(cycle, std::atoi(argv[1]));
  } else if ((arguments.size() == 3 || arguments.size() == 4) && operation != operations.end()) {
    const int n = std::atoi(argv[3]);
    for (ox_mat_t** m : {&a, &b, &dst}) *m = ones(n, n, operation->second.type);
    if (arguments.size() == 4) ox::chosen_kernels = ox::kernels_of(std::atoi(argv[4]));
    repeat(operation->second.call, std::atoi(argv[1]));
  } else {
    std::fprintf(stderr, "usage: profile TIMES product|transposed|add|s8|s16|s32 N [BYTES] | TIMES filter\n");
    return 2;
  }
  return 0;
}
