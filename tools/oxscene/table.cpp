// SPDX-License-Identifier: MIT
#include "oxscene/table.h"

#include <string_view>

#include "common/failure.h"
#include "common/files.h"
#include "common/numbers.h"

namespace scene {
namespace {

enum Column : std::size_t { kFrame, kIdentity, kLeft, kTop, kWidth, kHeight, kSeventh, kLabel, kVisible, kColumns };

// The numbers of a line; what lies beyond kColumns is not read.
std::vector<double> numbers_of(std::string_view line, const std::string& place) {
  std::vector<double> numbers;
  while (numbers.size() < kColumns) {
    const std::size_t comma = line.find(',');
    const std::string_view field = tool::trim(line.substr(0, comma));
    const tool::Parsed<double> number = tool::parse_real(field);
    if (number.problem) throw tool::Failure(place + tool::in_quotes(field) + " " + number.problem);
    numbers.push_back(number.value);
    if (comma == std::string_view::npos) break;
    line.remove_prefix(comma + 1);
  }
  if (numbers.size() <= kLabel)
    throw tool::Failure(place + std::to_string(numbers.size()) + " columns where at least 8 are needed");
  return numbers;
}

std::int64_t whole(double value, const std::string& place) {
  constexpr double kMost = 9007199254740992.0;  // exact in a double
  if (!(value >= -kMost && value <= kMost)) throw tool::Failure(place + "a frame, identity or class is out of range");
  return static_cast<std::int64_t>(value);
}

}  // namespace

Table read_table(const std::string& path) {
  const std::string text = tool::read_whole(path);
  std::string_view rest = text;
  Table table;
  for (int line_number = 1; !rest.empty(); ++line_number) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (tool::trim(line).empty()) continue;
    const std::string place = tool::input_name(path) + ":" + std::to_string(line_number) + ": ";
    const std::vector<double> n = numbers_of(line, place);
    table[whole(n[kFrame], place)].push_back({whole(n[kIdentity], place),
                                              {n[kLeft], n[kTop], n[kWidth], n[kHeight]},
                                              n[kSeventh],
                                              whole(n[kLabel], place),
                                              n.size() > kVisible ? n[kVisible] : 1.0});
  }
  return table;
}

}  // namespace scene
