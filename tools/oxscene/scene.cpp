// SPDX-License-Identifier: MIT
#include "oxscene/scene.h"

#include <cmath>

namespace scene {
namespace {

// Perspective of a level street: what stands at image row `foot` is drawn at (foot - kHorizon) * kPixelsPerMetreRow
// pixels per metre. A person of 1.7 m is 60 pixels tall at the far pavement and 280 at the near one.
constexpr double kHorizon = 230;
constexpr double kPixelsPerMetreRow = 0.2;
double pixels_per_metre(double foot) { return (foot - kHorizon) * kPixelsPerMetreRow; }

constexpr double kFarPavement[2] = {405, 450};
constexpr double kNearPavement[2] = {690, 1060};
constexpr double kLanes[2] = {500, 590};  // rows of the wheels: to the right in the far lane, to the left in the near
constexpr double kLaneDirection[2] = {1, -1};
constexpr double kStopLines[2] = {640, 1330};  // front bumper, at the crossing between them
constexpr double kCrossing[2] = {740, 1230};   // where people cross the road

// The light for vehicles, in frames. People start to cross only early in the red phase.
constexpr int kLightPeriod = 330;
constexpr int kRed = 150;
constexpr int kPeopleStart[2] = {15, 55};
constexpr double kClimb = 0.05;           // rows per frame for each pixel of a metre
constexpr double kFurthestCrosser = 860;  // row of the foot; who walks nearer to the camera passes by

// A kiosk on the near pavement hides what passes behind it. It is no object of the scene.
constexpr Box kKiosk{1490, 470, 150, 330};
constexpr double kKioskFoot = 800;

constexpr double kWalk = 1.35 / kFramesPerSecond;  // metres per frame
constexpr double kDrive = 9.0 / kFramesPerSecond;
constexpr double kBrake = 0.006;  // metres per frame, per frame: 5.4 m/s2
constexpr double kStart = 0.0022;
constexpr double kGap = 2.0;  // metres between bumpers

Box box_of(double x, double foot, double width_m, double height_m) {
  const double scale = pixels_per_metre(foot);
  return {x - width_m * scale / 2, foot - height_m * scale, width_m * scale, height_m * scale};
}

bool contains(const Box& box, double x, double y) {
  return x >= box.left && x < box.right() && y >= box.top && y < box.bottom();
}

// A triangle wave from -1 to 1: a sine would differ between C libraries in its last bit.
double swing(double phase) { return phase < 0.5 ? 4 * phase - 1 : 3 - 4 * phase; }

struct Layer {
  Box box;
  double foot;
};

// Counted on a grid of points.
double visible_share(const Layer& layer, const std::vector<Layer>& all) {
  constexpr int kAcross = 10, kDown = 16;
  int seen = 0;
  for (int row = 0; row < kDown; ++row)
    for (int column = 0; column < kAcross; ++column) {
      const double x = layer.box.left + layer.box.width * (column + 0.5) / kAcross;
      const double y = layer.box.top + layer.box.height * (row + 0.5) / kDown;
      if (x < 0 || x >= kImageWidth || y < 0 || y >= kImageHeight) continue;
      bool hidden = false;
      for (const Layer& other : all) hidden = hidden || (other.foot > layer.foot && contains(other.box, x, y));
      seen += hidden ? 0 : 1;
    }
  return static_cast<double>(seen) / (kAcross * kDown);
}

}  // namespace

Street::Street(std::uint32_t seed) : random_(seed) {
  // Some are there already: nobody wants to wait for the first.
  for (int i = 0; i < 5; ++i) {
    const double direction = random_.chance(0.5) ? 1 : -1;
    const bool far = random_.chance(0.4);
    const double* rows = far ? kFarPavement : kNearPavement;
    const double foot = random_.between(rows[0], rows[1]);
    const double x = random_.between(150, kImageWidth - 150);
    add_person(x, foot, direction * kWalk);
  }
}

void Street::add_person(double x, double foot, double speed) {
  Object o{};
  o.identity = next_identity_++;
  o.kind = Kind::kPerson;
  o.x = x;
  o.foot = foot;
  o.speed = speed * random_.between(0.8, 1.25);
  o.pace = std::fabs(o.speed);
  o.height = random_.between(1.55, 1.9);
  o.width = o.height * random_.between(0.36, 0.42);
  o.phase = random_.unit();
  objects_.push_back(o);
}

void Street::add_vehicle(int lane) {
  const bool lorry = random_.chance(0.2);
  Object o{};
  o.kind = Kind::kVehicle;
  o.foot = kLanes[lane];
  o.height = lorry ? random_.between(2.6, 3.2) : random_.between(1.4, 1.7);
  o.width = lorry ? random_.between(6.0, 8.0) : random_.between(3.9, 4.7);
  o.pace = kDrive * random_.between(0.8, 1.15);
  o.speed = o.pace * kLaneDirection[lane];
  const double half = o.width * pixels_per_metre(o.foot) / 2;
  o.x = lane == 0 ? -half : kImageWidth + half;
  // No room behind a queue that reaches to the edge: it does not come.
  const double room = kGap * pixels_per_metre(o.foot);
  for (const Object& other : objects_)
    if (other.kind == Kind::kVehicle && other.foot == o.foot &&
        std::fabs(other.x - o.x) < half + other.width * pixels_per_metre(o.foot) / 2 + 2 * room)
      return;
  o.identity = next_identity_++;
  objects_.push_back(o);
}

void Street::let_in() {
  for (int lane = 0; lane < 2; ++lane)
    if (random_.chance(0.011)) add_vehicle(lane);

  if (random_.chance(0.022)) {
    const double direction = random_.chance(0.5) ? 1 : -1;
    const bool far = random_.chance(0.35);
    const double* rows = far ? kFarPavement : kNearPavement;
    const double foot = random_.between(rows[0], rows[1]);
    const double outside = 0.5 * pixels_per_metre(foot);
    const double x = direction > 0 ? -outside : kImageWidth + outside;
    add_person(x, foot, direction * kWalk);
    // Couples walk side by side and hide each other.
    if (random_.chance(0.25)) {
      const double pace = objects_.back().speed;
      add_person(x - direction * 0.45 * pixels_per_metre(foot), foot + (far ? 4 : 9), direction * kWalk);
      objects_.back().speed = pace;
      objects_.back().pace = std::fabs(pace);
    }
  }
}

void Street::move_person(Object& person) {
  person.phase += 0.03;
  if (person.phase >= 1) person.phase -= 1;
  if (person.standing > 0) {
    --person.standing;
    // Some turn round.
    if (person.standing == 0 && random_.chance(0.3)) person.speed = -person.speed;
    return;
  }
  const double scale = pixels_per_metre(person.foot);
  if (person.climb != 0) {
    person.foot += person.climb * scale;
    // On the other side they go on along the pavement.
    const bool across = person.climb > 0 ? person.foot > kNearPavement[0] + 50 : person.foot < kFarPavement[1] - 30;
    if (across) person.climb = 0;
    return;
  }
  const int light = frame_ % kLightPeriod;
  const bool at_crossing = person.x > kCrossing[0] && person.x < kCrossing[1] && person.foot < kFurthestCrosser;
  if (at_crossing && light >= kPeopleStart[0] && light < kPeopleStart[1] && random_.chance(0.05))
    person.climb = person.foot < kLanes[0] ? kClimb : -kClimb;
  else if (random_.chance(0.0025))
    person.standing = random_.whole(30, 150);
  person.x += person.speed * scale;
}

// Keeps behind the vehicle in front and before a red light, by what braking takes from the present speed.
void Street::drive(Object& vehicle) const {
  const int lane = vehicle.foot == kLanes[0] ? 0 : 1;
  const double direction = kLaneDirection[lane];
  const double scale = pixels_per_metre(vehicle.foot);
  const double front = vehicle.x + direction * vehicle.width * scale / 2;
  double room = 1000;  // metres
  if (frame_ % kLightPeriod < kRed) {
    const double ahead = (kStopLines[lane] - front) * direction / scale;
    if (ahead > -0.5) room = std::min(room, std::max(0.0, ahead));
  }
  for (const Object& other : objects_) {
    if (other.kind != Kind::kVehicle || other.foot != vehicle.foot || other.identity == vehicle.identity) continue;
    const double rear = other.x - direction * other.width * scale / 2;
    const double ahead = (rear - front) * direction / scale;
    if ((other.x - vehicle.x) * direction > 0) room = std::min(room, std::max(0.0, ahead - kGap));
  }
  double speed = vehicle.speed * direction;
  const double stopping = speed * speed / (2 * kBrake);
  speed = stopping >= room ? speed - kBrake : speed + kStart;
  speed = std::min({std::max(speed, 0.0), vehicle.pace, room});
  vehicle.speed = speed * direction;
  vehicle.x += vehicle.speed * scale;
}

void Street::move(Object& object) {
  if (object.kind == Kind::kPerson)
    move_person(object);
  else
    drive(object);
}

bool Street::gone(const Object& object) {
  const Box box = box_of(object.x, object.foot, object.width, object.height);
  return object.speed > 0 ? box.left > kImageWidth : box.right() < 0;
}

std::vector<Seen> Street::step() {
  let_in();
  for (Object& object : objects_) move(object);
  objects_.erase(std::remove_if(objects_.begin(), objects_.end(), [](const Object& o) { return gone(o); }),
                 objects_.end());
  ++frame_;

  std::vector<Layer> layers;
  for (const Object& o : objects_) {
    // A walker's legs open and close.
    const bool walks = o.kind == Kind::kPerson && o.standing == 0;
    const double width = walks ? o.width * (1 + 0.12 * swing(o.phase)) : o.width;
    layers.push_back({box_of(o.x, o.foot, width, o.height), o.foot});
  }
  std::vector<Layer> all = layers;
  all.push_back({kKiosk, kKioskFoot});
  std::vector<Seen> seen;
  for (std::size_t i = 0; i < objects_.size(); ++i)
    seen.push_back({objects_[i].identity, objects_[i].kind, layers[i].box, visible_share(layers[i], all)});
  return seen;
}

}  // namespace scene
