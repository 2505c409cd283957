// SPDX-License-Identifier: MIT
#include "oxscene/detector.h"

namespace scene {
namespace {

// Misses come in runs: blur, a turned head, a shadow last for some frames.
constexpr double kBlindStart = 0.012;
constexpr int kBlindFrames[2] = {2, 7};

constexpr double kShake = 0.012;      // of the box's size, independent from frame to frame
constexpr double kDriftStep = 0.004;  // of the box's size, added up
constexpr double kDriftMost = 0.03;

constexpr double kSecondBox = 0.02;  // a part of the object found once more
constexpr double kInvented = 0.25;   // boxes a frame at random places
constexpr double kMistaken = 0.2;    // frames in which a place like an object is taken for one

double chance_of_finding(double visible) {
  if (visible >= 0.75) return 0.97;
  if (visible >= 0.5) return 0.85;
  if (visible >= 0.3) return 0.5;
  return visible >= 0.15 ? 0.12 : 0;
}

Box cut_to_image(const Box& box) {
  const double left = std::max(0.0, box.left), top = std::max(0.0, box.top);
  const double right = std::min<double>(kImageWidth, box.right()),
               bottom = std::min<double>(kImageHeight, box.bottom());
  return {left, top, right - left, bottom - top};
}

}  // namespace

// Another sequence than the street's: a change here leaves the true objects as they are.
Detector::Detector(std::uint32_t seed)
    : random_(seed ^ 0x9e3779b9u),
      mistakes_{{Kind::kPerson, {318, 352, 38, 104}, 0},
                {Kind::kPerson, {1702, 610, 74, 196}, 0},
                {Kind::kVehicle, {90, 395, 150, 62}, 0}} {}

void Detector::report(std::vector<Found>& found, Kind kind, const Box& box, double score) {
  constexpr double kSmallest = 8;  // pixels
  const Box inside = cut_to_image(box);
  if (inside.width < kSmallest || inside.height < kSmallest) return;
  found.push_back({kind, inside, std::min(0.999, std::max(0.05, score))});
}

Box Detector::shaken(const Box& box, double drift) {
  const double width = box.width * (1 + drift + kShake * random_.normal());
  const double height = box.height * (1 + drift + kShake * random_.normal());
  const double x = box.left + box.width / 2 + box.width * (drift + kShake * random_.normal());
  const double y = box.top + box.height / 2 + box.height * (drift + kShake * random_.normal());
  return {x - width / 2, y - height / 2, width, height};
}

std::vector<Found> Detector::look(const std::vector<Seen>& objects) {
  std::vector<Found> found;
  for (const Seen& object : objects) {
    double& drift = drift_[object.identity];
    drift = std::min(kDriftMost, std::max(-kDriftMost, drift + kDriftStep * random_.normal()));
    int& blind = blind_[object.identity];
    if (blind > 0) {
      --blind;
      continue;
    }
    if (random_.chance(kBlindStart)) blind = random_.whole(kBlindFrames[0], kBlindFrames[1]);
    if (!random_.chance(chance_of_finding(object.visible))) continue;
    const double score = 0.93 - 0.5 * (1 - object.visible) + 0.04 * random_.normal();
    report(found, object.kind, shaken(object.box, drift), score);
    if (random_.chance(kSecondBox)) {
      Box part = shaken(object.box, drift);
      part.height *= 0.55;
      report(found, object.kind, part, 0.5 * score);
    }
  }
  for (const Found& place : mistakes_) {
    if (!random_.chance(kMistaken)) continue;
    // Each number is drawn in a statement of its own: compilers evaluate arguments in different orders.
    const Box box = shaken(place.box, 0);
    report(found, place.kind, box, random_.between(0.2, 0.6));
  }
  if (random_.chance(kInvented)) {
    const double height = random_.between(50, 260), left = random_.between(0, kImageWidth);
    const double top = random_.between(250, kImageHeight - height);
    const bool person = random_.chance(0.7);
    report(found, person ? Kind::kPerson : Kind::kVehicle, {left, top, height * (person ? 0.4 : 2.2), height},
           random_.between(0.05, 0.55));
  }
  return found;
}

}  // namespace scene
