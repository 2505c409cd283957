// SPDX-License-Identifier: MIT
#include "oxscene/sequence.h"

#include <algorithm>
#include <filesystem>
#include <string_view>

#include "common/failure.h"
#include "common/files.h"
#include "common/numbers.h"

namespace scene {
namespace {

// Takes the text up to the separator off the front.
std::string_view cut(std::string_view& text, char separator) {
  const std::size_t end = std::min(text.find(separator), text.size());
  const std::string_view part = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return tool::trim(part);
}

double number(const std::string& path, std::string_view text) {
  const tool::Parsed<double> parsed = tool::parse_real(text);
  if (parsed.problem) throw tool::Failure(path + ": " + tool::in_quotes(text) + " " + parsed.problem);
  return parsed.value;
}

}  // namespace

SequenceInfo read_sequence_info(const std::string& truth_path) {
  const std::filesystem::path path = std::filesystem::path(truth_path).replace_filename("seqinfo.ini");
  SequenceInfo info;
  if (truth_path == tool::kStandardStream || !std::filesystem::exists(path)) return info;
  const std::string text = tool::read_whole(path.string());
  std::string_view rest = text;
  while (!rest.empty()) {
    std::string_view line = cut(rest, '\n');
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const std::string_view key = cut(line, '=');
    if (key == "minHeight") info.least_height = number(path.string(), line);
    if (key != "labels") continue;
    while (!line.empty()) {  // 1:person,2:vehicle
      std::string_view label = cut(line, ',');
      info.labels.insert(static_cast<std::int64_t>(number(path.string(), cut(label, ':'))));
    }
  }
  return info;
}

}  // namespace scene
