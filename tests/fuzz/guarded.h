// SPDX-License-Identifier: MIT
// Memory for operands, mapped once: pages between two forbidden ones. During a call of the library what is no operand
// of it is poisoned. A twin holds what the reference makes of the same call; afterwards all bytes are compared.
#ifndef OX_TESTS_FUZZ_GUARDED_H
#define OX_TESTS_FUZZ_GUARDED_H

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace fuzz {

class Guarded {
 public:
  static constexpr std::size_t kBytes = 8192;

  Guarded() {
    constexpr std::size_t kGuard = 65536;  // a whole number of pages everywhere
    void* const pages = mmap(nullptr, kBytes + 2 * kGuard, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) std::abort();
    first_ = static_cast<unsigned char*>(pages) + kGuard;
    if (mprotect(first_, kBytes, PROT_READ | PROT_WRITE) != 0) std::abort();
  }
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;

  unsigned char* begin() { return first_; }
  unsigned char* twin(const void* p) { return twin_ + (static_cast<const unsigned char*>(p) - first_); }

  void poison() { ASAN_POISON_MEMORY_REGION(first_, kBytes); }
  void unpoison() { ASAN_UNPOISON_MEMORY_REGION(first_, kBytes); }

  void twin_follows() { std::memcpy(twin_, first_, kBytes); }
  // Of what was written by hand.
  void twin_follows(const void* p, std::size_t bytes) { std::memcpy(twin(p), p, bytes); }
  bool same() const { return std::memcmp(first_, twin_, kBytes) == 0; }

 private:
  unsigned char* first_;
  alignas(64) unsigned char twin_[kBytes] = {};
};

}  // namespace fuzz

#endif
