// SPDX-License-Identifier: MIT
// A street seen by a fixed camera: pavement in front, a road with two lanes, pavement behind.
#pragma once

#include <cstdint>
#include <vector>

#include "oxscene/box.h"
#include "oxscene/random.h"

namespace scene {

constexpr int kImageWidth = 1920;
constexpr int kImageHeight = 1080;
constexpr int kFramesPerSecond = 30;

enum class Kind { kPerson = 1, kVehicle = 2 };  // the values are the labels

// One object in one frame.
struct Seen {
  int identity;  // from 1
  Kind kind;
  Box box;         // whole, also where it is hidden or reaches out of the image
  double visible;  // share of the box that lies in the image and behind nothing
};

class Street {
 public:
  explicit Street(std::uint32_t seed);

  // The next frame: moves everything, lets objects in and out.
  std::vector<Seen> step();

 private:
  struct Object {
    int identity;
    Kind kind;
    double x;       // middle of the box
    double foot;    // lower edge of the box; the larger, the nearer to the camera
    double pace;    // metres per frame, never negative
    double speed;   // metres per frame along x now; to the left below zero
    double climb;   // rows of foot per frame and pixel of a metre; not 0 while crossing the road
    double height;  // metres
    double width;   // metres
    int standing;   // frames left to stand
    double phase;   // of the stride, 0 up to below 1
  };

  void let_in();
  void add_person(double x, double foot, double speed);
  void add_vehicle(int lane);
  void move(Object& object);
  void move_person(Object& person);
  void drive(Object& vehicle) const;
  static bool gone(const Object& object);

  Random random_;
  int frame_ = 0;
  int next_identity_ = 1;
  std::vector<Object> objects_;
};

}  // namespace scene
