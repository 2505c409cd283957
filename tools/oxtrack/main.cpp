// SPDX-License-Identifier: MIT
// oxtrack: detections in, tracks out. Parses, calls the library, prints; no tracking arithmetic of its own.
#include <exception>
#include <iostream>
#include <new>

#include "common/failure.h"
#include "common/files.h"
#include "common/numbers.h"
#include "oxtrack/detections.h"
#include "oxtrack/options.h"
#include "oxtrack/run.h"

namespace {

std::string counted(std::int64_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string microseconds(double seconds) {
  std::string out;
  tool::append_fixed(out, seconds * 1e6, 1);
  return out;
}

std::string summary(const tool::DetectionFile& file, const tool::Outcome& outcome) {
  std::string out = "frames      " + std::to_string(outcome.frames);
  if (outcome.frames > 0)
    out += " (" + std::to_string(file.first_frame) + " to " + std::to_string(file.last_frame) + ")";
  out += "\ndetections  " + std::to_string(file.lines) + " read, " + std::to_string(file.below_min_score) +
         " below the lowest score, " + std::to_string(outcome.dropped) + " dropped";
  out += "\ntracks      " + std::to_string(outcome.tracks);
  out += "\ntime        " + microseconds(outcome.mean_seconds) + " us a frame on average, " +
         microseconds(outcome.worst_seconds) + " us at worst, inside the library\n";
  return out;
}

std::string warnings(const tool::Outcome& outcome) {
  std::string out;
  if (outcome.dropped > 0)
    out += "oxtrack: " + counted(outcome.dropped, "detection") + " dropped: their frames hold more than --capacity\n";
  if (outcome.homeless > 0)
    out += "oxtrack: " + counted(outcome.homeless, "detection") + " began no track: as many were alive as --capacity " +
           "allows\n";
  return out;
}

void run(int argc, char** argv) {
  const tool::Options options = tool::parse_options(argc, argv);
  if (!options.information.empty()) return tool::write_standard_output(options.information);
  const tool::DetectionFile file =
      tool::read_detections(options.input, {tool::scale_of(options), options.min_score, options.label_column});
  const tool::Outcome outcome = tool::track(file, options);
  if (options.output == tool::kStandardStream)
    tool::write_standard_output(outcome.results);
  else
    tool::replace_file(options.output, outcome.results);
  std::cerr << warnings(outcome) << summary(file, outcome);
}

}  // namespace

int main(int argc, char** argv) {
  tool::guard_standard_streams();
  try {
    run(argc, argv);
    return 0;
  } catch (const std::bad_alloc&) {
    std::cerr << "oxtrack: not enough memory\n";
  } catch (const std::exception& error) {
    std::cerr << "oxtrack: " << error.what() << "\n";
  }
  return tool::kFailureStatus;
}
