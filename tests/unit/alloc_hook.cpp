// SPDX-License-Identifier: MIT
#include "alloc_hook.h"

#include <atomic>
#include <cstdlib>

namespace {

// Plain atomics of constant initialisation: the first allocations come before any constructor has run.
std::atomic<long> live_blocks{0};
std::atomic<long> requests{0};
std::atomic<long> refusals{0};
std::atomic<std::size_t> latest_size{0};
std::atomic<long> first_failing{0};
std::atomic<long> end_failing{0};

// A request for nothing is given null, as a C library may do it: nobody may count on a block.
bool refuse(std::size_t bytes) {
  latest_size = bytes;
  const long number = ++requests;
  if (bytes == 0) return true;
  if (number < first_failing || number >= end_failing) return false;
  ++refusals;
  return true;
}

void* counted(void* block) {
  if (block != nullptr) ++live_blocks;
  return block;
}

}  // namespace

namespace alloc_hook {

void fail_from(long nth, long how_many) {
  const long first = requests + nth;
  end_failing = 0;
  first_failing = first;
  end_failing = first + how_many;
}

void reset() {
  end_failing = 0;
  first_failing = 0;
  live_blocks = 0;
  requests = 0;
  refusals = 0;
  latest_size = 0;
}

long live() { return live_blocks; }
std::size_t last_size() { return latest_size; }
long calls() { return requests; }
long refused() { return refusals; }

}  // namespace alloc_hook

// The names are the linker's.
extern "C" {

void* __real_malloc(std::size_t bytes);
void* __real_calloc(std::size_t count, std::size_t bytes);
void __real_free(void* block);

void* __wrap_malloc(std::size_t bytes) { return refuse(bytes) ? nullptr : counted(__real_malloc(bytes)); }

void* __wrap_calloc(std::size_t count, std::size_t bytes) {
  return refuse(count * bytes) ? nullptr : counted(__real_calloc(count, bytes));
}

void __wrap_free(void* block) {
  if (block != nullptr) --live_blocks;
  __real_free(block);
}

}  // extern "C"
