// SPDX-License-Identifier: MIT
#include "oxscene/make.h"

#include <filesystem>

#include "common/failure.h"
#include "common/files.h"
#include "common/numbers.h"
#include "oxscene/detector.h"
#include "oxscene/scene.h"

namespace scene {
namespace {

// What hardly shows is not to be scored.
constexpr double kScoredVisible = 0.15;

constexpr int kDecimals = 3;

void append_number(std::string& out, double value) {
  out += ',';
  tool::append_fixed(out, value, kDecimals);
}

void append_fields(std::string& out, std::int64_t frame, std::int64_t identity, const Box& box) {
  tool::append_whole(out, frame);
  out += ',';
  tool::append_whole(out, identity);
  for (const double value : {box.left, box.top, box.width, box.height}) {
    append_number(out, value);
  }
}

}  // namespace

void make(const std::string& directory, std::uint32_t seed, std::int64_t frames) {
  std::string detections, truth;
  Street street(seed);
  Detector detector(seed);
  for (std::int64_t frame = 1; frame <= frames; ++frame) {
    const std::vector<Seen> objects = street.step();
    for (const Seen& object : objects) {
      append_fields(truth, frame, object.identity, object.box);
      truth += object.visible >= kScoredVisible ? ",1," : ",0,";
      tool::append_whole(truth, static_cast<int>(object.kind));
      append_number(truth, object.visible);
      truth += '\n';
    }
    for (const Found& found : detector.look(objects)) {
      append_fields(detections, frame, -1, found.box);
      append_number(detections, found.score);
      detections += ',';
      tool::append_whole(detections, static_cast<int>(found.kind));
      detections += ",-1,-1\n";
    }
  }
  std::string info = "[Sequence]\nname=scene-" + std::to_string(seed);
  info += "\nframeRate=" + std::to_string(kFramesPerSecond) + "\nseqLength=" + std::to_string(frames);
  info += "\nimWidth=" + std::to_string(kImageWidth) + "\nimHeight=" + std::to_string(kImageHeight);
  info += "\ncamera=static\nlabels=1:person,2:vehicle\ndetector=oxscene\n";

  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error) throw tool::Failure(directory + ": " + error.message());
  tool::replace_file(directory + "/det.txt", detections);
  tool::replace_file(directory + "/gt.txt", truth);
  tool::replace_file(directory + "/seqinfo.ini", info);
}

}  // namespace scene
