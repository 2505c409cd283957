// SPDX-License-Identifier: MIT
#include "oxtrack/detections.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string_view>
#include <unordered_map>

#include "common/failure.h"
#include "common/files.h"
#include "common/numbers.h"

namespace tool {
namespace {

// Columns, from 0.
enum Column : std::size_t { kFrame, kId, kLeft, kTop, kWidth, kHeight, kScore, kLabel };
constexpr const char* kColumnNames[] = {"frame", "id", "left", "top", "width", "height", "score"};
constexpr std::size_t kRequiredColumns = kScore + 1;

// One less than the largest, so that the number of frames from 0 on can be counted.
constexpr std::int64_t kLastFrame = std::numeric_limits<std::int64_t>::max() - 1;

// In library units. The tracker adds corners, and its filter doubles what it adds up: from this size on a sum could
// leave the range of float and come out as an infinite box.
constexpr double kLargestCoordinate = 1e36;

// The tracker holds labels as floats, in which whole numbers are exact up to here.
constexpr std::size_t kMostLabels = std::size_t{1} << 24;

// A whole number without plus sign, leading zeros and decimals: two labels are the same when these texts are.
std::string plain_whole(std::string_view text, const char*& problem) {
  std::string_view digits = text;
  const bool negative = !digits.empty() && digits[0] == '-';
  if (!digits.empty() && (negative || digits[0] == '+')) digits.remove_prefix(1);
  if (!digits.empty() && digits.find_first_not_of("0123456789") == std::string_view::npos) {
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size() - 1));
    return (negative && digits != "0" ? "-" : "") + std::string(digits);
  }
  const Parsed<std::int64_t> number = parse_whole(text);  // 7.0, 1e3
  problem = number.problem;
  return std::to_string(number.value);
}

class Parser {
 public:
  Parser(std::string name, const DetectionRules& rules) : name_(std::move(name)), rules_(rules) {}

  void take_line(std::string_view line) {
    ++line_number_;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (trim(line).empty()) return;
    split(line);
    if (fields_.size() < kRequiredColumns)
      fail(std::to_string(fields_.size()) + " columns where at least " + std::to_string(kRequiredColumns) +
           " are needed");

    Detection d{};
    d.frame = frame();
    real(kId);
    const double left = real(kLeft), top = real(kTop), width = size(kWidth), height = size(kHeight);
    d.x1 = coordinate(kLeft, left);
    d.y1 = coordinate(kTop, top);
    d.x2 = coordinate(kWidth, left + width);
    d.y2 = coordinate(kHeight, top + height);
    const double score = real(kScore);
    // What rounds to the largest float is one: written at its shortest, 3.4028235e+38, that float itself is above its value.
    if (std::fabs(score) >= 0x1.ffffffp127) fail(kScore, "is out of range");
    d.score = static_cast<float>(score);
    d.label = label();

    file_.first_frame = file_.lines == 0 ? d.frame : std::min(file_.first_frame, d.frame);
    file_.last_frame = file_.lines == 0 ? d.frame : std::max(file_.last_frame, d.frame);
    ++file_.lines;
    if (score < rules_.min_score)
      ++file_.below_min_score;
    else
      file_.detections.push_back(d);
  }

  DetectionFile finish() {
    std::stable_sort(file_.detections.begin(), file_.detections.end(),
                     [](const Detection& a, const Detection& b) { return a.frame < b.frame; });
    return std::move(file_);
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw Failure(name_ + ":" + std::to_string(line_number_) + ": " + what);
  }

  [[noreturn]] void fail(Column column, const std::string& problem) const {
    fail(std::string(kColumnNames[column]) + " " + in_quotes(fields_[column]) + " " + problem);
  }

  void split(std::string_view line) {
    fields_.clear();
    for (;;) {
      const std::size_t comma = line.find(',');
      fields_.push_back(trim(line.substr(0, comma)));
      if (comma == std::string_view::npos) return;
      line.remove_prefix(comma + 1);
    }
  }

  double real(Column column) const {
    const Parsed<double> number = parse_real(fields_[column]);
    if (number.problem) fail(column, number.problem);
    return number.value;
  }

  double size(Column column) const {
    const double value = real(column);
    if (value < 0) fail(column, "is negative");
    return value;
  }

  float coordinate(Column column, double pixels) const {
    const double units = pixels * rules_.scale;
    if (!(std::fabs(units) <= kLargestCoordinate)) fail(column, "is out of range");
    return static_cast<float>(units);
  }

  std::int64_t frame() const {
    const Parsed<std::int64_t> number = parse_whole(fields_[kFrame]);
    if (number.problem) fail(kFrame, number.problem);
    if (number.value < 0) fail(kFrame, "is negative");
    if (number.value > kLastFrame) fail(kFrame, "is out of range");
    return number.value;
  }

  // The label's number in file_.labels; zero is not among them, since the tracker takes it for the end of a list.
  std::int32_t label() {
    std::string text = "1";
    if (const std::optional<std::size_t> column = label_column()) {
      const char* problem = nullptr;
      text = plain_whole(fields_[*column], problem);
      if (problem)
        fail("label " + in_quotes(fields_[*column]) + " in column " + std::to_string(*column + 1) + " " + problem +
             (rules_.label_column ? "" : "; --label-column 0 reads no labels"));
    }
    const auto [place, is_new] = numbers_.try_emplace(text, static_cast<std::int32_t>(file_.labels.size() + 1));
    if (is_new) {
      if (file_.labels.size() == kMostLabels) fail("more than " + std::to_string(kMostLabels) + " different labels");
      file_.labels.push_back(text);
    }
    return place->second;
  }

  std::optional<std::size_t> label_column() const {
    if (!rules_.label_column) return fields_.size() > kLabel ? std::optional<std::size_t>(kLabel) : std::nullopt;
    const auto column = static_cast<std::size_t>(*rules_.label_column);
    if (column == 0) return std::nullopt;
    if (column > fields_.size())
      fail(std::to_string(fields_.size()) + " columns and no label in column " + std::to_string(column));
    return column - 1;
  }

  const std::string name_;
  const DetectionRules rules_;
  std::int64_t line_number_ = 0;
  std::vector<std::string_view> fields_;  // of the current line
  std::unordered_map<std::string, std::int32_t> numbers_;
  DetectionFile file_;
};

}  // namespace

DetectionFile read_detections(const std::string& path, const DetectionRules& rules) {
  const std::string text = read_whole(path);
  std::string_view rest = text;
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (rest.substr(0, kByteOrderMark.size()) == kByteOrderMark) rest.remove_prefix(kByteOrderMark.size());
  Parser parser(input_name(path), rules);
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    parser.take_line(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return parser.finish();
}

}  // namespace tool
