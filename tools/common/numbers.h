// SPDX-License-Identifier: MIT
// Numbers as text, both ways, independent of any locale.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

// A value, or what is wrong with the text: problem goes on from the quoted text, "'x' is not a number".
template <class T> struct Parsed {
  T value{};
  const char* problem = nullptr;
};

Parsed<double> parse_real(std::string_view text);         // finite
Parsed<std::int64_t> parse_whole(std::string_view text);  // also written as a real: 7.0, 1e3

// Without the spaces and tabs around it.
std::string_view trim(std::string_view text);

// For messages: in quotes, shortened, control characters replaced.
std::string in_quotes(std::string_view text);

// With that many decimals; what rounds to zero gets no sign.
void append_fixed(std::string& out, double value, int decimals);

// The fewest digits that read back to the same float.
void append_shortest(std::string& out, float value);

void append_whole(std::string& out, std::int64_t value);

}  // namespace tool
