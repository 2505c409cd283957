// SPDX-License-Identifier: MIT
// A contest: one task, several contenders, one table. Each contender's result is compared with the reference before
// it is timed; a wrong one ends the programme.
#pragma once

#include <alloca.h>
#include <benchmark/benchmark.h>
#include <ox.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// Registers the contests of a topic; each topic's source has one.
void register_contests();

// Single precision: the distance from 1 to the next number. A rounding is off by at most half of it.
constexpr double kEps = 1.0 / (1 << 23);

std::size_t scalar_bytes(unsigned depth);
double scalar(unsigned depth, const void* data, std::size_t i);
void set_scalar(unsigned depth, void* data, std::size_t i, double value);
// What is left of a whole number in the integer type of a depth.
double wrapped(unsigned depth, double value);

// Where a page is divided. A load that stands at the same place of its page as a store just before it is taken for
// dependent on that store, and waits: what a contest reads and what it writes stand at different places, each operand of
// 1088 bytes at most at its own, and none where the calls have their arguments.
constexpr std::size_t kPage = 4096, kOperandPlace = 1088, kOperandPlaces = 3;
constexpr std::size_t kScalarPlace = kOperandPlaces * kOperandPlace, kCallPlace = kScalarPlace + 64;

// Storage for scalars, at a multiple of 64 bytes, for every contender of a contest the same. Successive arrays take the
// places of a page in turn, from the last to the first.
void* new_array(unsigned depth, std::size_t count);
// Storage for one that is read beside arrays.
void* new_scalar(unsigned depth);
// Fills with whole numbers from least to most, always the same for one seed.
void fill(unsigned depth, void* data, std::size_t count, int least, int most, unsigned seed);
// Fills with numbers of both signs and magnitudes from 1/2 to 1.
void fill_reals(float* data, std::size_t count, unsigned seed);

// A packed n x n matrix of one channel over an array.
ox_mat_t square(unsigned depth, long n, void* data);

struct Expected {
  std::vector<double> value;
  std::vector<double> bound;  // how far a result may be off; empty for not at all
};

// Computed when first asked for: only contests that the filter of the command line leaves are worked out.
class Reference {
 public:
  explicit Reference(std::function<Expected()> compute) : compute_(std::move(compute)) {}
  const Expected& get() {
    if (!known_) known_ = std::make_unique<Expected>(compute_());
    return *known_;
  }

 private:
  std::function<Expected()> compute_;
  std::unique_ptr<Expected> known_;
};

// How a result is looked at.
struct Answer {
  unsigned depth;
  std::function<void()> prepare;        // before the run that is checked: spoils the last result, or sets a start
  std::function<const void*()> result;  // after it
  std::shared_ptr<Reference> reference;
};

// The result is an array, spoilt before.
Answer array_answer(unsigned depth, void* data, std::size_t count, std::shared_ptr<Reference> reference);

void check(const std::string& name, const Answer& answer, const std::function<void()>& run);

// Makes the library use vectors of at most so many bytes while it lives; 0: as it chose by itself.
class FixedWidth {
 public:
  explicit FixedWidth(int bytes);
  ~FixedWidth();

 private:
  const void* chosen_;
};
bool has_width(int bytes);

// Clears the upper parts of the vector registers. libxsmm's code alone leaves something in them, and code of the
// narrowest width after it would be up to five times slower, for as long as nobody clears them.
void clear_upper_registers();

// A call, with its arguments, where no contender's operands are in the way.
template <class Run> Run* at_call_place(const Run& run) {
  static_assert(sizeof(Run) <= kPage - kCallPlace);
  auto* const page = static_cast<unsigned char*>(std::aligned_alloc(kPage, kPage));
  if (!page) std::abort();
  return new (page + kCallPlace) Run(run);
}

// The turns of a contender, on a stack that begins at a page's end, above all that has a place.
template <class Run> __attribute__((noinline)) void turns(benchmark::State& state, Run& run) {
  for (auto _ : state) {
    run();
    benchmark::ClobberMemory();
  }
}
template <class Run> __attribute__((noinline)) void turns_at_place(benchmark::State& state, Run& run) {
  const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  void* const room = alloca(here % kPage);
  asm volatile("" ::"r"(room) : "memory");
  turns(state, run);
}

// run: the call that is timed, without arguments. row and column: any text without '/'.
template <class Run>
void contend(const std::string& table, const std::string& row, const std::string& column, Answer answer, Run run,
             int width_bytes = 0) {
  const std::string name = table + "/" + row + "/" + column;
  benchmark::RegisterBenchmark(
      name.c_str(),
      [name, answer, call = at_call_place(run), width_bytes, checked = false](benchmark::State& state) mutable {
        const FixedWidth width(width_bytes);
        if (!checked) check(name, answer, *call);
        checked = true;
        clear_upper_registers();
        turns_at_place(state, *call);
      });
}

}  // namespace bench
