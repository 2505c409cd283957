// SPDX-License-Identifier: MIT
#include "common/numbers.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <system_error>

namespace tool {
namespace {

constexpr const char* kNotANumber = "is not a number";
constexpr const char* kNotFinite = "is not a finite number";
constexpr const char* kNotWhole = "is not a whole number";
constexpr const char* kOutOfRange = "is out of range";

// Whole numbers up to here are exact in a double.
constexpr double kExactWhole = 9007199254740992.0;

// from_chars takes no plus sign; one is allowed here before a digit or a point.
std::string_view without_plus(std::string_view text) {
  const bool signed_number = text.size() > 1 && text[0] == '+' && text[1] != '-' && text[1] != '+';
  return signed_number ? text.substr(1) : text;
}

template <class... Format> void append_chars(std::string& out, Format... value) {
  // The largest double has 309 digits before the point.
  char buffer[400];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, value...).ptr;
  out.append(buffer, end);
}

}  // namespace

Parsed<double> parse_real(std::string_view text) {
  const std::string_view number = without_plus(text);
  double value = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
  if (error == std::errc::invalid_argument || end != number.data() + number.size()) return {0, kNotANumber};
  // Said of what is too near to zero as well, which is rounded here.
  if (error != std::errc()) value = std::strtod(std::string(number).c_str(), nullptr);
  if (error != std::errc() && std::isinf(value)) return {0, kOutOfRange};
  if (!std::isfinite(value)) return {0, kNotFinite};
  return {value, nullptr};
}

Parsed<std::int64_t> parse_whole(std::string_view text) {
  const std::string_view number = without_plus(text);
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
  if (end == number.data() + number.size()) {
    if (error == std::errc()) return {value, nullptr};
    if (error == std::errc::result_out_of_range) return {0, kOutOfRange};
  }
  const Parsed<double> real = parse_real(text);
  if (real.problem) return {0, real.problem};
  if (real.value != std::floor(real.value)) return {0, kNotWhole};
  if (!(std::fabs(real.value) <= kExactWhole)) return {0, kOutOfRange};
  return {static_cast<std::int64_t>(real.value), nullptr};
}

std::string_view trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string in_quotes(std::string_view text) {
  constexpr std::size_t kShown = 40;
  std::string out = "'";
  for (const char c : text.substr(0, kShown)) out += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  return out + (text.size() > kShown ? "...'" : "'");
}

void append_fixed(std::string& out, double value, int decimals) {
  const std::size_t start = out.size();
  append_chars(out, value, std::chars_format::fixed, decimals);
  if (out[start] == '-' && out.find_first_not_of("-0.", start) == std::string::npos) out.erase(start, 1);
}

void append_shortest(std::string& out, float value) { append_chars(out, value); }

void append_whole(std::string& out, std::int64_t value) { append_chars(out, value); }

}  // namespace tool
