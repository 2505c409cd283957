// SPDX-License-Identifier: MIT
// An input is one byte that chooses the rules and then the file that oxtrack is given. It is refused with the number of
// a line, or what was read keeps what detections.h promises, reads back from text written of it, and can be tracked.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/failure.h"
#include "common/numbers.h"
#include "oxtrack/detections.h"
#include "oxtrack/options.h"
#include "oxtrack/run.h"

namespace {

using tool::Detection;
using tool::DetectionFile;
using tool::DetectionRules;

constexpr float kLargestCoordinate = 1e36f;
constexpr std::size_t kMostTracked = 48;  // detections; more cost time and show nothing new

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", what);
  std::abort();
}

// A file without a place on a disk.
class File {
 public:
  File() : descriptor_(memfd_create("detections", MFD_CLOEXEC)) {
    if (descriptor_ < 0) std::abort();
    path_ = "/proc/self/fd/" + std::to_string(descriptor_);
  }
  ~File() { close(descriptor_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  const std::string& path() const { return path_; }
  void hold(std::string_view text) {
    const auto size = static_cast<off_t>(text.size());
    if (ftruncate(descriptor_, size) != 0 || pwrite(descriptor_, text.data(), text.size(), 0) != size) std::abort();
  }

 private:
  int descriptor_;
  std::string path_;
};

struct Refusal {
  std::int64_t line = 0;
  std::string problem;
};

// Nothing if it was refused. A refusal names the file and one of its lines.
std::optional<DetectionFile> read(const std::string& text, const DetectionRules& rules, Refusal& refusal) {
  static File file;
  file.hold(text);
  try {
    return tool::read_detections(file.path(), rules);
  } catch (const tool::Failure& failure) {
    const std::string message = failure.what();
    const std::string start = file.path() + ":";
    require(message.compare(0, start.size(), start) == 0, "a refusal begins with the file's name");
    std::int64_t line = 0;
    const char* const digits = message.data() + start.size();
    const char* const end = message.data() + message.size();
    const auto [behind, error] = std::from_chars(digits, end, line);
    require(error == std::errc() && end - behind > 2 && std::memcmp(behind, ": ", 2) == 0, "a refusal has a line");
    require(line >= 1 && line <= 1 + std::count(text.begin(), text.end(), '\n'), "the line is one of the file");
    for (const char c : message) require(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f, "a message is printable");
    refusal = {line, behind};
    return std::nullopt;
  }
}

// As std::to_string writes a number, of any length.
bool is_plain_whole(std::string_view text) {
  if (text == "0") return true;
  if (!text.empty() && text[0] == '-') text.remove_prefix(1);
  return !text.empty() && text[0] != '0' && text.find_first_not_of("0123456789") == std::string_view::npos;
}

void check(const DetectionFile& file, const std::string& text, const DetectionRules& rules) {
  require(static_cast<std::int64_t>(file.detections.size()) + file.below_min_score == file.lines, "all are counted");
  require(file.lines <= 1 + std::count(text.begin(), text.end(), '\n'), "one detection a line");
  require(file.below_min_score == 0 || std::isfinite(rules.min_score), "none is below no score");
  if (file.lines > 0)
    require(0 <= file.first_frame && file.first_frame <= file.last_frame &&
                file.last_frame < std::numeric_limits<std::int64_t>::max(),
            "the range of frames");

  std::int64_t frame = file.first_frame;
  for (const Detection& d : file.detections) {
    require(frame <= d.frame && d.frame <= file.last_frame, "frames rise");
    frame = d.frame;
    for (const float x : {d.x1, d.y1, d.x2, d.y2}) require(std::fabs(x) <= kLargestCoordinate, "a coordinate");
    require(d.x1 <= d.x2 && d.y1 <= d.y2, "the corners' order");
    require(std::isfinite(d.score) && static_cast<double>(d.score) >= rules.min_score, "a score");
    require(d.label >= 1 && static_cast<std::size_t>(d.label) <= file.labels.size(), "a label's number");
  }
  if (rules.label_column == 0) require(file.labels.size() <= 1, "labels that are not read");
  for (std::size_t i = 0; i < file.labels.size(); ++i) {
    require(is_plain_whole(file.labels[i]), "a label's form");
    require(std::count(file.labels.begin(), file.labels.end(), file.labels[i]) == 1, "labels differ");
  }
}

// An empty line in front moves the others by one and changes nothing else.
void check_behind_empty_line(const std::string& text, const DetectionRules& rules,
                             const std::optional<DetectionFile>& file, const Refusal& refusal) {
  if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) return;  // a byte order mark is one at the very beginning only
  Refusal moved;
  const auto again = read("\n" + text, rules, moved);
  require(again.has_value() == file.has_value(), "an empty line decides about nothing");
  if (!file) return require(moved.line == refusal.line + 1 && moved.problem == refusal.problem, "the refusal moves");
  require(again->lines == file->lines && again->detections.size() == file->detections.size() &&
              again->labels == file->labels,
          "an empty line adds and takes nothing");
}

void append_real(std::string& out, double value) {
  char buffer[64];
  out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}

// Written in the library's units, the detections come back as they are.
void check_round_trip(const DetectionFile& file) {
  std::string text;
  std::vector<Detection> expected;
  for (const Detection& d : file.detections) {
    const double width = static_cast<double>(d.x2) - static_cast<double>(d.x1);
    const double height = static_cast<double>(d.y2) - static_cast<double>(d.y1);
    // A size is exact unless the corners are of very different magnitudes.
    if (static_cast<double>(d.x1) + width != static_cast<double>(d.x2) ||
        static_cast<double>(d.y1) + height != static_cast<double>(d.y2))
      continue;
    expected.push_back(d);
    tool::append_whole(text, d.frame);
    text += ",-1,";
    append_real(text, static_cast<double>(d.x1));
    text += ',';
    append_real(text, static_cast<double>(d.y1));
    text += ',';
    append_real(text, width);
    text += ',';
    append_real(text, height);
    text += ',';
    tool::append_shortest(text, d.score);
    text += ',' + file.labels[static_cast<std::size_t>(d.label) - 1] + '\n';
  }
  Refusal refusal;
  const auto again = read(text, {1.0, -std::numeric_limits<double>::infinity(), std::nullopt}, refusal);
  require(again.has_value(), "written detections are read");
  require(again->detections.size() == expected.size(), "as many are read as were written");
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const Detection &got = again->detections[i], &want = expected[i];
    require(got.frame == want.frame && got.x1 == want.x1 && got.y1 == want.y1 && got.x2 == want.x2 &&
                got.y2 == want.y2 && got.score == want.score,
            "a detection comes back");
    require(again->labels[static_cast<std::size_t>(got.label) - 1] ==
                file.labels[static_cast<std::size_t>(want.label) - 1],
            "a label comes back");
  }
}

void check_tracking(const DetectionFile& file, std::uint8_t choice, double gate) {
  tool::Options options;
  options.gate = gate;
  options.coasting = choice & 1;
  options.tracker.any_label = choice & 2;
  options.tracker.confirm_hits = 1 + (choice >> 2 & 1);
  if (choice & 8) options.tracker.capacity = 3;
  const tool::Outcome outcome = tool::track(file, options);
  require(file.lines == 0 || outcome.frames == file.last_frame - file.first_frame + 1, "frames are counted");
  if (!options.tracker.capacity) require(outcome.dropped == 0 && outcome.homeless == 0, "the capacity is enough");

  // Each line: frame, identity, box, score, one of the labels, -1, -1. Frames rise.
  std::string_view rest = outcome.results;
  std::int64_t frame = file.first_frame;
  while (!rest.empty()) {
    const std::size_t end = rest.find('\n');
    require(end != std::string_view::npos, "lines end");
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    std::string_view fields[10];
    for (std::size_t i = 0; i < 10; ++i) {
      const std::size_t comma = std::min(line.find(','), line.size());
      require((comma == line.size()) == (i == 9), "ten columns");
      fields[i] = line.substr(0, comma);
      if (i < 9) line.remove_prefix(comma + 1);
    }
    const auto number = tool::parse_whole(fields[0]), id = tool::parse_whole(fields[1]);
    require(!number.problem && frame <= number.value && number.value <= file.last_frame, "frames rise in the result");
    frame = number.value;
    require(!id.problem && id.value >= 1 && id.value <= outcome.tracks, "an identity");
    for (std::size_t i = 2; i < 7; ++i) require(!tool::parse_real(fields[i]).problem, "the result is finite");
    require(std::count(file.labels.begin(), file.labels.end(), fields[7]) == 1, "a label of the result");
    require(fields[8] == "-1" && fields[9] == "-1", "the last columns");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static constexpr double gates[] = {80, 10, 1e-30, 1e30};
  const double gate = gates[data[0] & 3];
  DetectionRules rules{10 / gate, -std::numeric_limits<double>::infinity(), std::nullopt};
  if (data[0] & 4) rules.min_score = 0.5;
  if (data[0] & 8) rules.label_column = (data[0] >> 4) % 10;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);

  Refusal refusal;
  const auto file = read(text, rules, refusal);
  check_behind_empty_line(text, rules, file, refusal);
  if (!file) return 0;
  check(*file, text, rules);
  if (file->detections.size() > kMostTracked) return 0;
  check_round_trip(*file);
  check_tracking(*file, static_cast<std::uint8_t>(data[0] >> 4), gate);
  return 0;
}
