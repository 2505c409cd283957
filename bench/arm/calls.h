// SPDX-License-Identifier: MIT
// What a counted case is made of: its entry in the list, deterministic operands, plain references.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

namespace calls {

constexpr int kProductSizes[] = {2, 3, 4, 6, 8, 12, 16, 32, 64};
constexpr int kMostSize = 64;
constexpr int kElements = 256;  // of an element-wise call
constexpr int kTransposeSize = 32;
constexpr int kInverseSizes[] = {2, 4, 8};

// Forms of a product, as they stand in the names of the cases.
enum Form { kPlain, kTransposeA, kTransposeB };
constexpr Form kForms[] = {kPlain, kTransposeA, kTransposeB};
inline const char* name_of(Form form) { return form == kPlain ? "a*b" : form == kTransposeA ? "aT*b" : "a*bT"; }

template <class T> const char* name_of() {
  if (std::is_same_v<T, float>) return "f32";
  return sizeof(T) == 1 ? (std::is_signed_v<T> ? "s8" : "u8") : sizeof(T) == 2 ? "s16" : "s32";
}

struct Case {
  std::string name;
  std::function<bool(unsigned count)> run;  // false: the result is wrong
  // Of the library's own cases: the names of its rivals, and the most instructions wanted: a number, "half" of the best
  // rival's, or nothing.
  std::string rivals, goal;
};

void add_library_cases(std::vector<Case>& cases);
void add_rival_cases(std::vector<Case>& cases);

// One call is made and checked, then count calls more. Nothing else depends on count.
template <class Call, class Check> bool counted(unsigned count, Call call, Check check) {
  call();
  if (!check()) return false;
  for (; count > 0; --count) {
    call();
    asm volatile("" ::: "memory");
  }
  return true;
}

// Integers take every value; floats lie in -1 to 1, none nearer to zero than 2^-17.
template <class T> std::vector<T> numbers(std::size_t count, uint32_t seed) {
  std::vector<T> values(count);
  uint32_t state = seed;
  for (T& v : values) {
    state = state * 1664525u + 1013904223u;  // Numerical Recipes, quick and dirty generator
    if constexpr (std::is_floating_point_v<T>)
      v = static_cast<T>(static_cast<float>(static_cast<int32_t>(state >> 15) - 65536) + 0.5f) / 65536;
    else
      v = static_cast<T>(state >> (32 - 8 * sizeof(T)));
  }
  return values;
}

template <class T> struct ProductOperands {
  int n;
  Form form;
  std::vector<T> a, b, dst;
  ProductOperands(int size, Form given)
      : n(size), form(given), a(numbers<T>(square(), 1)), b(numbers<T>(square(), 2)), dst(square()) {}
  std::size_t square() const { return static_cast<std::size_t>(n) * static_cast<std::size_t>(n); }

  // Integers are compared modulo their size. Floats may be summed in any order: each of n terms is rounded at most n
  // times, by half a unit of 2^-23 each.
  bool right(const T* result) const {
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        double sum = 0, magnitude = 0;
        uint64_t wrapped = 0;
        for (int k = 0; k < n; ++k) {
          const T x = a[static_cast<std::size_t>(form == kTransposeA ? k * n + i : i * n + k)];
          const T y = b[static_cast<std::size_t>(form == kTransposeB ? j * n + k : k * n + j)];
          const double term = static_cast<double>(x) * static_cast<double>(y);
          sum += term;
          magnitude += std::fabs(term);
          if constexpr (!std::is_floating_point_v<T>) wrapped += static_cast<uint64_t>(x) * static_cast<uint64_t>(y);
        }
        const T got = result[i * n + j];
        if constexpr (std::is_floating_point_v<T>) {
          if (!(std::fabs(static_cast<double>(got) - sum) <= n * 0x1p-24 * magnitude)) return false;
        } else if (got != static_cast<T>(wrapped)) {
          return false;
        }
      }
    return true;
  }
};

// Well conditioned: the diagonal outweighs the rest of its row.
inline std::vector<float> invertible(int n) {
  std::vector<float> m = numbers<float>(static_cast<std::size_t>(n) * static_cast<std::size_t>(n), 3);
  for (int i = 0; i < n; ++i) m[static_cast<std::size_t>(i * n + i)] += 2.0f * static_cast<float>(n);
  return m;
}

// The product with the original is the identity. An inverse in single precision is rounded some n times an element, and
// so strays by n units in each of the n terms summed here.
inline bool is_inverse(int n, const float* m, const float* inverse) {
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      double sum = i == j ? -1 : 0, magnitude = 0;
      for (int k = 0; k < n; ++k) {
        const double term = static_cast<double>(m[i * n + k]) * static_cast<double>(inverse[k * n + j]);
        sum += term;
        magnitude += std::fabs(term);
      }
      if (!(std::fabs(sum) <= n * 0x1p-23 * magnitude)) return false;
    }
  return true;
}

// The filter's model and start, row-major: 8 states that drift, the first 4 of them measured, everything a little
// coupled.
constexpr int kStates = 8, kMeasured = 4;
struct FilterModel {
  float A[kStates * kStates], H[kMeasured * kStates], Q[kStates * kStates], R[kMeasured * kMeasured];
  float x[kStates], P[kStates * kStates], z[kMeasured];
};
const FilterModel& filter_model();

enum Steps { kPredict = 1, kCorrect = 2, kBoth = 3 };
constexpr Steps kSteps[] = {kPredict, kCorrect, kBoth};
inline const char* name_of(Steps steps) {
  return steps == kPredict ? "predict" : steps == kCorrect ? "correct" : "predict+correct";
}

// Whether x and P are what one predict, or one predict and one correct, make of the start.
bool is_filtered(Steps steps, const float* x, const float* P);

}  // namespace calls
