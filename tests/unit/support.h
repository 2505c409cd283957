// SPDX-License-Identifier: MIT
// What the unit tests share: the list of scalar types, hostile data from a fixed seed, memory that shows
// every access beside an operand, and comparisons byte for byte.
#ifndef OX_TESTS_SUPPORT_H
#define OX_TESTS_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iomanip>
#include <limits>
#include <new>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "ox.h"
#include "reference/matrix.h"

namespace support {

// Emulators are some twenty times slower. There the random repetitions shrink; the walks over all lane
// boundaries do not.
#if defined(OX_TEST_LIGHT)
constexpr bool kLight = true;
#else
constexpr bool kLight = false;
#endif
constexpr int scaled(int repetitions) { return kLight ? (repetitions + 5) / 6 : repetitions; }

// The widest vectors that any lane implementation may use.
constexpr std::size_t kWidestVectorBytes = 64;

// Two vectors and one scalar more: every mixture of whole vectors and left-over scalars occurs below that.
template <class Depth>
constexpr std::int32_t last_lane_boundary() {
  return static_cast<std::int32_t>(2 * kWidestVectorBytes / sizeof(typename Depth::Scalar)) + 1;
}

// ---------------------------------------------------------------------------------------------- types

template <std::uint32_t depth, class T>
struct Depth {
  static constexpr std::uint32_t kType = depth;
  using Scalar = T;
};
using U8 = Depth<OX_U8, std::uint8_t>;
using S8 = Depth<OX_S8, std::int8_t>;
using U16 = Depth<OX_U16, std::uint16_t>;
using S16 = Depth<OX_S16, std::int16_t>;
using S32 = Depth<OX_S32, std::int32_t>;
using F32 = Depth<OX_F32, float>;
using S64 = Depth<OX_S64, std::int64_t>;
using F64 = Depth<OX_F64, double>;
using EveryDepth = ::testing::Types<U8, S8, U16, S16, S32, F32, S64, F64>;
using FloatDepths = ::testing::Types<F32, F64>;

struct DepthName {
  template <class D>
  static std::string GetName(int) {
    static const char* const names[8] = {"U8", "S8", "U16", "S16", "S32", "F32", "S64", "F64"};
    return names[D::kType];
  }
};

inline bool is_float(std::uint32_t type) { return (type & 7u) == OX_F32 || (type & 7u) == OX_F64; }

// Elements of 8 bytes are promised no more than the alignment of 4.
inline std::size_t alignment(std::uint32_t type) { return std::min<std::size_t>(reference::scalar_size(type), 4); }

// Headers are laid by hand here, so that only the tests of ox_mat_initheader depend on it.
inline ox_mat_t header(std::uint32_t type, std::int32_t rows, std::int32_t cols, void* data) {
  return ox_mat_t{type, rows, cols, reference::packed_step(type, cols), data};
}

inline reference::Matrix plain(const ox_mat_t& m, void* data) {
  return reference::Matrix{m.type, m.rows, m.cols, m.step, static_cast<unsigned char*>(data)};
}
inline reference::Matrix plain(const ox_mat_t& m) { return plain(m, m.data); }

// A header with its elements, for tests that spell their numbers out.
template <class T>
struct Filled {
  std::vector<T> values;
  ox_mat_t m;

  Filled(std::uint32_t type, std::int32_t rows, std::int32_t cols, std::vector<T> scalars)
      : values(std::move(scalars)), m(header(type, rows, cols, values.data())) {}
  Filled(const Filled&) = delete;
  Filled& operator=(const Filled&) = delete;
};

// ----------------------------------------------------------------------------------------------- data

class Random {
 public:
  explicit Random(std::uint64_t seed) : seed_(seed), engine_(seed) {}

  std::uint64_t bits() { return engine_(); }
  // Both ends included.
  std::int32_t between(std::int32_t low, std::int32_t high) {
    const auto span = static_cast<std::uint64_t>(std::int64_t{high} - low + 1);
    return static_cast<std::int32_t>(low + static_cast<std::int64_t>(bits() % span));
  }
  std::size_t below(std::size_t n) { return static_cast<std::size_t>(bits() % n); }
  bool one_in(std::int32_t n) { return between(1, n) == 1; }

  friend std::ostream& operator<<(std::ostream& out, const Random& random) {
    return out << "[seed " << random.seed_ << "] ";
  }

 private:
  std::uint64_t seed_;
  std::mt19937_64 engine_;
};

inline void store_bits(std::uint32_t type, unsigned char* scalar, std::uint64_t bits) {
  // The low bytes come first on every target.
  std::memcpy(scalar, &bits, reference::scalar_size(type));
}

// Extremes of a depth as bit patterns.
inline const std::vector<std::uint64_t>& special_bits(std::uint32_t type) {
  static const std::vector<std::uint64_t> integers[4] = {
      {0x00, 0x01, 0xFF, 0x7F, 0x80, 0x81, 0xFE},
      {0x0000, 0x0001, 0xFFFF, 0x7FFF, 0x8000, 0x00FF, 0xFF00},
      {0, 1, 0xFFFFFFFFu, 0x7FFFFFFFu, 0x80000000u, 0xFFFFu, 0x10000u, 0x8000u, 0x7FFFu, 0x7FFF8000u},
      {0, 1, ~std::uint64_t{0}, 0x7FFFFFFFFFFFFFFFu, 0x8000000000000000u, 0xFFFFFFFFu, 0x100000000u}};
  static const std::vector<std::uint64_t> singles = {
      0x00000000u, 0x80000000u, 0x3F800000u, 0xBF800000u,  // zeros, ones
      0x7F7FFFFFu, 0xFF7FFFFFu, 0x00800000u, 0x80800000u,  // largest, smallest normal
      0x00000001u, 0x80000001u, 0x007FFFFFu, 0x807FFFFFu,  // subnormal
      0x7F800000u, 0xFF800000u,                            // infinities
      0x7FC12345u, 0xFFC54321u, 0x7F812345u};              // NaNs with payloads, the last one signalling
  static const std::vector<std::uint64_t> doubles = {
      0x0000000000000000u, 0x8000000000000000u, 0x3FF0000000000000u, 0xBFF0000000000000u, 0x7FEFFFFFFFFFFFFFu,
      0xFFEFFFFFFFFFFFFFu, 0x0010000000000000u, 0x8010000000000000u, 0x0000000000000001u, 0x8000000000000001u,
      0x000FFFFFFFFFFFFFu, 0x800FFFFFFFFFFFFFu, 0x7FF0000000000000u, 0xFFF0000000000000u, 0x7FF8123456789ABCu,
      0xFFF8CBA987654321u, 0x7FF0123456789ABCu};
  if ((type & 7u) == OX_F32) return singles;
  if ((type & 7u) == OX_F64) return doubles;
  return integers[(type & 7u) / 2];
}

// sign * 1.xxx * 2^exponent; below the smallest normal exponent the value comes out subnormal or zero.
inline void store_float(Random& random, std::uint32_t type, unsigned char* scalar, std::int32_t exponent) {
  const double fraction = 1.0 + static_cast<double>(random.bits() >> 12) / 4503599627370496.0;
  const double value = std::ldexp(random.one_in(2) ? -fraction : fraction, exponent);
  if ((type & 7u) == OX_F32) {
    const auto single = static_cast<float>(value);
    std::memcpy(scalar, &single, sizeof single);
  } else {
    std::memcpy(scalar, &value, sizeof value);
  }
}

// Floats with an exponent in the band, both ends included.
inline void fill_exponents(Random& random, std::uint32_t type, void* data, std::size_t count, std::int32_t low,
                           std::int32_t high) {
  auto* const bytes = static_cast<unsigned char*>(data);
  for (std::size_t i = 0; i < count; ++i)
    store_float(random, type, bytes + i * reference::scalar_size(type), random.between(low, high));
}

// How much of the data is extreme. A single NaN or infinity spreads over whole rows of a product and hides
// what the other terms did, so products need all three kinds.
enum class Data {
  kTame,       // integers of any bits, floats within some orders of magnitude
  kSprinkled,  // tame but for a few scalars
  kHostile     // extremes, any bits and tame scalars mixed
};

inline void fill(Random& random, std::uint32_t type, void* data, std::size_t count, Data kind) {
  auto* const bytes = static_cast<unsigned char*>(data);
  const std::vector<std::uint64_t>& special = special_bits(type);
  const std::size_t size = reference::scalar_size(type);
  for (std::size_t i = 0; i < count; ++i) {
    const std::int32_t dice = random.between(0, 63);
    const bool extreme = (kind == Data::kSprinkled && dice == 0) || (kind == Data::kHostile && dice < 24);
    if (extreme)
      store_bits(type, bytes + i * size, special[random.below(special.size())]);
    else if (!is_float(type) || (kind == Data::kHostile && dice < 32))
      store_bits(type, bytes + i * size, random.bits());
    else
      store_float(random, type, bytes + i * size, random.between(-6, 6));
  }
}

inline Data any_kind(Random& random) {
  static const Data kinds[3] = {Data::kTame, Data::kSprinkled, Data::kHostile};
  return kinds[random.below(3)];
}

// ----------------------------------------------------------------------------------------- comparison

inline std::uint64_t scalar_bits(std::uint32_t type, const void* data, std::size_t i) {
  const std::size_t size = reference::scalar_size(type);
  std::uint64_t bits = 0;
  std::memcpy(&bits, static_cast<const unsigned char*>(data) + i * size, size);
  return bits;
}

inline bool is_nan(std::uint32_t type, std::uint64_t bits) {
  if ((type & 7u) == OX_F32) return (bits & 0x7FFFFFFFu) > 0x7F800000u;
  if ((type & 7u) == OX_F64) return (bits & 0x7FFFFFFFFFFFFFFFu) > 0x7FF0000000000000u;
  return false;
}

inline bool any_nan(std::uint32_t type, const void* data, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i)
    if (is_nan(type, scalar_bits(type, data, i))) return true;
  return false;
}

inline ::testing::AssertionResult same_scalar_run(std::uint32_t type, const void* got, const void* want,
                                                  std::size_t count, bool all_nans_equal) {
  const std::size_t size = reference::scalar_size(type);
  if (count == 0 || std::memcmp(got, want, count * size) == 0) return ::testing::AssertionSuccess();
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint64_t is = scalar_bits(type, got, i);
    const std::uint64_t should_be = scalar_bits(type, want, i);
    if (is == should_be || (all_nans_equal && is_nan(type, is) && is_nan(type, should_be))) continue;
    std::ostringstream text;
    text << "scalar " << i << " of " << count << " is 0x" << std::hex << std::setfill('0')
         << std::setw(static_cast<int>(2 * size)) << is << ", expected 0x" << std::setw(static_cast<int>(2 * size))
         << should_be << ' ';
    return ::testing::AssertionFailure() << text.str();
  }
  return ::testing::AssertionSuccess();
}

// For what arithmetic produced: every NaN is as good as any other.
inline ::testing::AssertionResult same_values(std::uint32_t type, const void* got, const void* want,
                                              std::size_t count) {
  return same_scalar_run(type, got, want, count, true);
}

// For what was moved, sign-flipped or must not have changed.
inline ::testing::AssertionResult same_bytes(const void* got, const void* want, std::size_t bytes) {
  return same_scalar_run(OX_U8, got, want, bytes, false);
}

// --------------------------------------------------------------------------------------------- memory

// Where an operand lies: its first or last byte at a page that can neither be read nor written or `offset` bytes from
// there, or `offset` bytes behind a multiple of 64.
struct Placement {
  enum Kind { kAtStart, kAtEnd, kInside } kind;
  std::size_t offset;
};

inline Placement any_placement(Random& random, std::uint32_t type) {
  const std::int32_t dice = random.between(0, 3);
  if (dice == 0) return {Placement::kAtStart, 0};
  if (dice == 1) return {Placement::kAtEnd, 0};
  const std::size_t step = alignment(type);
  return {Placement::kInside, step * random.below(64 / step)};
}

// Pages between two forbidden ones. An operand placed inside has 64 painted bytes on either side, as far as
// the pages go.
class GuardedPages {
 public:
  explicit GuardedPages(std::size_t most_bytes) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    usable_ = (most_bytes + 4 * kCanary + page - 1) / page * page;
    mapped_ = usable_ + 2 * page;
    void* const pages = mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) throw std::bad_alloc();
    first_ = static_cast<unsigned char*>(pages) + page;
    mapping_ = pages;
    if (mprotect(first_, usable_, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
  }
  ~GuardedPages() { munmap(mapping_, mapped_); }
  GuardedPages(const GuardedPages&) = delete;
  GuardedPages& operator=(const GuardedPages&) = delete;

  unsigned char* place(std::size_t bytes, Placement where) {
    bytes_ = bytes;
    switch (where.kind) {
      case Placement::kAtStart:
        operand_ = first_ + where.offset;
        break;
      case Placement::kAtEnd:
        operand_ = first_ + usable_ - bytes - where.offset;
        break;
      case Placement::kInside:
        operand_ = first_ + kCanary + where.offset;
        break;
    }
    for (unsigned char* p = before(); p != operand_; ++p) *p = kPaint;
    for (unsigned char* p = operand_ + bytes; p != behind(); ++p) *p = kPaint;
    return operand_;
  }

  // True while nothing was written beside the operand.
  ::testing::AssertionResult intact() const {
    for (const unsigned char* p = before(); p != operand_; ++p)
      if (*p != kPaint) return ::testing::AssertionFailure() << "byte " << (p - operand_) << " was written ";
    for (const unsigned char* p = operand_ + bytes_; p != behind(); ++p)
      if (*p != kPaint) return ::testing::AssertionFailure() << "byte " << (p - operand_) << " was written ";
    return ::testing::AssertionSuccess();
  }

 private:
  static constexpr std::size_t kCanary = 64;
  static constexpr unsigned char kPaint = 0xA5;

  unsigned char* before() const {
    return operand_ - std::min(kCanary, static_cast<std::size_t>(operand_ - first_));
  }
  unsigned char* behind() const {
    unsigned char* const end = operand_ + bytes_;
    return end + std::min(kCanary, static_cast<std::size_t>(first_ + usable_ - end));
  }

  void* mapping_ = nullptr;
  std::size_t mapped_ = 0;
  std::size_t usable_ = 0;
  unsigned char* first_ = nullptr;
  unsigned char* operand_ = nullptr;
  std::size_t bytes_ = 0;
};

// A copy of one stretch of memory on which the reference can repeat a call: the addresses are those of the
// original, moved to the copy, so that overlapping operands overlap in the same way.
class Twin {
 public:
  Twin(const void* data, std::size_t bytes)
      : original_(static_cast<const unsigned char*>(data)), bytes_(original_, original_ + bytes) {}

  unsigned char* at(const void* p) { return bytes_.data() + (static_cast<const unsigned char*>(p) - original_); }
  const unsigned char* data() const { return bytes_.data(); }
  std::size_t size() const { return bytes_.size(); }

 private:
  const unsigned char* original_;
  std::vector<unsigned char> bytes_;
};

// Says of a stretch of memory whether it is as it was.
class Unchanged {
 public:
  Unchanged(const void* data, std::size_t bytes) : data_(data), twin_(data, bytes) {}
  ::testing::AssertionResult check() const { return same_bytes(data_, twin_.data(), twin_.size()); }

 private:
  const void* data_;
  Twin twin_;
};

// Distances in bytes at which two operands are laid over each other: all that the alignment allows, from
// farther apart than two of the widest vectors on one side to as far on the other.
inline std::vector<std::ptrdiff_t> overlap_distances(std::uint32_t type) {
  const auto step = static_cast<std::ptrdiff_t>(alignment(type));
  std::vector<std::ptrdiff_t> distances;
  for (std::ptrdiff_t d = -136; d <= 136; d += step) distances.push_back(d);
  return distances;
}

// Factors of a product whose terms have exponents about `target`: entries of a lie about one exponent, those
// of b about the rest. Besides plain data there are rows of which two neighbouring terms nearly cancel, and
// single entries far off that exponent, so that a glance at a part of the data tells nothing about the whole.
// Flags are those of ox_mat_mul: a is [m x k] or [k x m], b is [k x n] or [n x k].
template <class T>
void fill_factors_about(Random& random, std::uint32_t type, unsigned char* a, unsigned char* b, std::int32_t m,
                        std::int32_t n, std::int32_t k, std::uint32_t flags, std::int32_t target) {
  const bool a_transposed = flags == OX_MAT_TRANSPOSE_A;
  const bool b_transposed = flags == OX_MAT_TRANSPOSE_B;
  constexpr std::int32_t smallest = std::numeric_limits<T>::min_exponent - std::numeric_limits<T>::digits;
  constexpr std::int32_t largest = std::numeric_limits<T>::max_exponent - 1;
  const std::int32_t low = std::max(smallest, target - largest);
  const std::int32_t high = std::min(largest, target - smallest);
  // Half of the time both factors are of like size, as they would be in earnest.
  const std::int32_t a_exponent =
      std::clamp(random.one_in(2) ? target / 2 + random.between(-8, 8) : random.between(low, high), low, high);
  const std::int32_t b_exponent = target - a_exponent;
  const std::int32_t spread = random.between(0, 3);
  const auto a_count = static_cast<std::size_t>(m * k);
  const auto b_count = static_cast<std::size_t>(k * n);
  fill_exponents(random, type, a, a_count, std::max(smallest, a_exponent - spread), a_exponent);
  fill_exponents(random, type, b, b_count, std::max(smallest, b_exponent - spread), b_exponent);

  const auto copy_changed = [&](unsigned char* from, unsigned char* to, bool negated) {
    T value;
    std::memcpy(&value, from, sizeof value);
    if (negated) value = -value;
    if (random.one_in(2)) value = std::nextafter(value, T{0});
    std::memcpy(to, &value, sizeof value);
  };
  const std::int32_t kind = random.between(0, 3);
  if (kind == 1) {
    for (std::int32_t t = 0; t + 1 < k; t += 2) {
      for (std::int32_t i = 0; i < m; ++i) {
        const std::int32_t at = a_transposed ? t * m + i : i * k + t;
        const std::int32_t next = a_transposed ? (t + 1) * m + i : i * k + t + 1;
        copy_changed(a + static_cast<std::size_t>(at) * sizeof(T), a + static_cast<std::size_t>(next) * sizeof(T),
                     true);
      }
      for (std::int32_t j = 0; j < n; ++j) {
        const std::int32_t at = b_transposed ? j * k + t : t * n + j;
        const std::int32_t next = b_transposed ? j * k + t + 1 : (t + 1) * n + j;
        copy_changed(b + static_cast<std::size_t>(at) * sizeof(T), b + static_cast<std::size_t>(next) * sizeof(T),
                     false);
      }
    }
  } else if (kind == 2) {
    store_float(random, type, a + random.below(a_count) * sizeof(T), random.between(smallest, 0));
    store_float(random, type, b + random.below(b_count) * sizeof(T), random.between(smallest, 0));
  } else if (kind == 3) {
    std::memset(a + random.below(a_count) * sizeof(T), 0, sizeof(T));
    std::memset(b + random.below(b_count) * sizeof(T), 0, sizeof(T));
  }
}

// Factors of which one element alone makes a subnormal term, so that a test of the data that leaves out any
// element goes wrong. The element is term t, an even one, of row `line` of a or of column `line` of b. The
// terms before it cancel in pairs and those behind it are zero: the subnormal term is the result.
// Either the element is subnormal itself, or it meets others that are small without harm to the rest.
template <class T>
void fill_factors_with_one_odd(Random& random, std::uint32_t type, unsigned char* a, unsigned char* b,
                               std::int32_t m, std::int32_t n, std::int32_t k, std::uint32_t flags, bool odd_in_a,
                               std::int32_t line, std::int32_t t, bool subnormal) {
  constexpr std::int32_t smallest = std::numeric_limits<T>::min_exponent - 1;
  const auto a_at = [&](std::int32_t i, std::int32_t term) {
    const std::int32_t index = flags == OX_MAT_TRANSPOSE_A ? term * m + i : i * k + term;
    return a + static_cast<std::size_t>(index) * sizeof(T);
  };
  const auto b_at = [&](std::int32_t term, std::int32_t j) {
    const std::int32_t index = flags == OX_MAT_TRANSPOSE_B ? j * k + term : term * n + j;
    return b + static_cast<std::size_t>(index) * sizeof(T);
  };
  fill_exponents(random, type, a, static_cast<std::size_t>(m * k), 0, 2);
  fill_exponents(random, type, b, static_cast<std::size_t>(k * n), 0, 2);
  for (std::int32_t term = 0; term + 1 < k; term += 2) {
    for (std::int32_t i = 0; i < m; ++i) {
      T value;
      std::memcpy(&value, a_at(i, term), sizeof value);
      value = -value;
      std::memcpy(a_at(i, term + 1), &value, sizeof value);
    }
    for (std::int32_t j = 0; j < n; ++j) std::memcpy(b_at(term + 1, j), b_at(term, j), sizeof(T));
  }
  const std::int32_t element = subnormal ? smallest - 4 : smallest / 2 - 8;
  if (odd_in_a) {
    store_float(random, type, a_at(line, t), element);
    for (std::int32_t term = t + 1; term < k; ++term) std::memset(a_at(line, term), 0, sizeof(T));
    if (subnormal) return;
    for (std::int32_t j = 0; j < n; ++j) store_float(random, type, b_at(t, j), smallest / 2);
  } else {
    store_float(random, type, b_at(t, line), element);
    for (std::int32_t term = t + 1; term < k; ++term) std::memset(b_at(term, line), 0, sizeof(T));
    if (subnormal) return;
    for (std::int32_t i = 0; i < m; ++i) store_float(random, type, a_at(i, t), smallest / 2);
  }
}

// Rows of these lengths end within, at and behind vectors of every width.
inline std::vector<std::int32_t> row_lengths() {
  return {1, 2, 3, 4, 5, 7, 8, 9, 11, 12, 13, 15, 16, 17, 19, 20, 23, 24, 25, 31, 32, 33, 36, 65};
}

// Exponents of single terms at which something happens: rounding to a subnormal or to zero, the last term of
// which a difference can be subnormal, and overflow.
template <class T>
std::vector<std::int32_t> critical_exponents() {
  constexpr std::int32_t smallest = std::numeric_limits<T>::min_exponent - 1;
  constexpr std::int32_t digits = std::numeric_limits<T>::digits;
  std::vector<std::int32_t> exponents;
  for (std::int32_t e = smallest - digits - 4; e <= smallest + digits + 6; ++e) exponents.push_back(e);
  for (std::int32_t e = -smallest - 4; e <= -smallest + 2; ++e) exponents.push_back(e);
  return exponents;
}

// Bits 8 to 31 of a type word mean nothing, as long as all operands carry the same ones.
inline std::uint32_t with_high_bits(Random& random, std::uint32_t type) {
  return type | (random.one_in(2) ? 0u : static_cast<std::uint32_t>(random.bits()) & 0xFFFFFF00u);
}

}  // namespace support

#endif
