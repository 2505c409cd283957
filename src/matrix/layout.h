// SPDX-License-Identifier: MIT
// What a type word and a header say about storage.
#pragma once

#include "lanes/scalars.h"

namespace ox {

constexpr uint32_t kChannelField = 31u << 3;

inline uint32_t channels(uint32_t type) { return ((type & kChannelField) >> 3) + 1; }

// Size of a scalar and its logarithm, a field per depth in a packed constant: no table, no branch.
inline uint32_t scalar_size(uint32_t type) { return (0x88442211u >> ((type & 7u) * 4)) & 15u; }
inline uint32_t scalar_size_log2(uint32_t type) { return (0xFA50u >> ((type & 7u) * 2)) & 3u; }

// Sizes are 32-bit words and their products wrap; a count at or below zero means an empty matrix.
inline int32_t wrapped_product(uint32_t a, uint32_t b) { return static_cast<int32_t>(a * b); }

inline int32_t scalar_count(const ox_mat_t& m) {
  const uint32_t row = static_cast<uint32_t>(m.cols) * channels(m.type);
  return wrapped_product(static_cast<uint32_t>(m.rows), row);
}

// What does not match is the caller's mistake: code lies so that what matches goes straight on. In a function of its own
// the hint would come too late.
#define OX_USUALLY(matches) __builtin_expect(matches, true)

inline bool same_shape(const ox_mat_t& a, const ox_mat_t& b) {
  return OX_USUALLY(a.type == b.type && a.rows == b.rows && a.cols == b.cols);
}

template <class T> inline Stored<T>* scalars(const ox_mat_t& m) { return static_cast<Stored<T>*>(m.data); }

}  // namespace ox
