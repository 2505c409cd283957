// SPDX-License-Identifier: MIT
// oxscene: makes a scene with known truth, and scores results against it.
#include <iostream>
#include <string>
#include <vector>

#include "common/failure.h"
#include "common/files.h"
#include "common/numbers.h"
#include "oxscene/make.h"
#include "oxscene/score.h"

namespace {

constexpr const char* kUsage =
    "oxscene make DIR [--seed N] [--frames N]   write det.txt, gt.txt and seqinfo.ini (seed 1, 600 frames)\n"
    "oxscene score GT RESULTS                   compare results with true boxes; reads the seqinfo.ini beside GT\n";

std::int64_t whole_argument(const std::string& name, const std::string& text, std::int64_t most) {
  const tool::Parsed<std::int64_t> number = tool::parse_whole(text);
  if (number.problem || number.value < 0 || number.value > most)
    throw tool::Failure(name + ": " + tool::in_quotes(text) + " is not a whole number from 0 to " +
                        std::to_string(most));
  return number.value;
}

void make(const std::vector<std::string>& arguments) {
  constexpr std::int64_t kMostFrames = 1000000;
  std::int64_t seed = 1, frames = 600;
  for (std::size_t i = 1; i < arguments.size(); i += 2) {
    const std::string& name = arguments[i];
    if (i + 1 == arguments.size() || (name != "--seed" && name != "--frames"))
      throw tool::Failure("usage:\n" + std::string(kUsage));
    if (name == "--seed")
      seed = whole_argument(name, arguments[i + 1], 0xffffffff);
    else
      frames = whole_argument(name, arguments[i + 1], kMostFrames);
  }
  scene::make(arguments[0], static_cast<std::uint32_t>(seed), frames);
}

std::string percent(std::int64_t part, std::int64_t whole) {
  std::string out;
  tool::append_fixed(out, whole > 0 ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0, 1);
  return out + " %";
}

void score(const std::string& truth, const std::string& results) {
  const scene::Score s =
      scene::score(scene::read_table(truth), scene::read_table(results), scene::read_sequence_info(truth));
  tool::write_standard_output("true objects " + std::to_string(s.objects) + ", kept one identity " +
                              std::to_string(s.kept_identity) + ", identity switches " + std::to_string(s.switches) +
                              ", recall " + percent(s.pairs, s.true_boxes) + ", precision " +
                              percent(s.pairs, s.pairs + s.wrong) + "\n");
}

void run(const std::vector<std::string>& arguments) {
  const std::string verb = arguments.empty() ? "" : arguments[0];
  std::vector<std::string> rest;
  if (!arguments.empty()) rest.assign(arguments.begin() + 1, arguments.end());
  if (verb == "--help" || verb == "-h") return tool::write_standard_output(kUsage);
  if (verb == "make" && !rest.empty() && !rest[0].empty()) return make(rest);
  if (verb == "score" && rest.size() == 2) return score(rest[0], rest[1]);
  throw tool::Failure("usage:\n" + std::string(kUsage));
}

}  // namespace

int main(int argc, char** argv) {
  tool::guard_standard_streams();
  try {
    run(std::vector<std::string>(argv + 1, argv + argc));
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "oxscene: " << error.what() << "\n";
    return tool::kFailureStatus;
  }
}
