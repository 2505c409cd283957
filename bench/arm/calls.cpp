// SPDX-License-Identifier: MIT
// calls NAME COUNT   makes COUNT calls of one case; the instructions of a call are the difference of two runs, divided
// calls              lists the library's cases: name, rivals, goal
#include "calls.h"

#include <ox.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace calls {
namespace {

template <class T> constexpr uint32_t kDepth = 0;
template <> constexpr uint32_t kDepth<uint8_t> = OX_U8;
template <> constexpr uint32_t kDepth<int8_t> = OX_S8;
template <> constexpr uint32_t kDepth<int16_t> = OX_S16;
template <> constexpr uint32_t kDepth<int32_t> = OX_S32;
template <> constexpr uint32_t kDepth<float> = OX_F32;

template <class T> ox_mat_t over(std::vector<T>& values, int rows, int cols) {
  ox_mat_t header;
  ox_mat_initheader(&header, rows, cols, kDepth<T>, values.data());
  return header;
}

template <class T> void add_product(std::vector<Case>& cases, int n, Form form,
                                    std::initializer_list<const char*> rivals, const char* goal) {
  const auto run = [n, form](unsigned count) {
    ProductOperands<T> o(n, form);
    const ox_mat_t a = over(o.a, n, n), b = over(o.b, n, n);
    ox_mat_t dst = over(o.dst, n, n);
    const uint32_t flags = form == kTransposeA ? OX_MAT_TRANSPOSE_A : form == kTransposeB ? OX_MAT_TRANSPOSE_B : 0;
    return counted(
        count, [&] { ox_mat_mul(&a, &b, &dst, flags); }, [&] { return o.right(o.dst.data()); });
  };
  const std::string name = std::string(name_of<T>()) + "/" + name_of(form) + "/" + std::to_string(n);
  std::string named;
  for (const char* const rival : rivals) named += (named.empty() ? "" : ",") + std::string(rival) + "/" + name;
  cases.push_back({name, run, named, goal});
}

template <class T> void add_elementwise(std::vector<Case>& cases) {
  const std::string type = name_of<T>();
  const auto add_case = [&](const std::string& operation, auto call, auto plain) {
    const std::string name = type + "/" + operation + "/" + std::to_string(kElements);
    cases.push_back({name,
                     [call, plain](unsigned count) {
                       auto a = numbers<T>(kElements, 1), b = numbers<T>(kElements, 2);
                       std::vector<T> result(kElements);
                       ox_mat_t ma = over(a, 1, kElements), mb = over(b, 1, kElements),
                                dst = over(result, 1, kElements);
                       return counted(
                           count, [&] { call(&ma, &mb, &dst); },
                           [&] {
                             for (std::size_t i = 0; i < kElements; ++i)
                               if (result[i] != static_cast<T>(plain(a[i], b[i]))) return false;
                             return true;
                           });
                     },
                     "eigen/" + name + ",loops/" + name, ""});
  };
  static const T three = 3;
  add_case(
      "add", [](const ox_mat_t* a, const ox_mat_t* b, ox_mat_t* dst) { ox_mat_add(a, b, dst); },
      [](T a, T b) { return a + b; });
  add_case(
      "scale", [](const ox_mat_t* a, const ox_mat_t*, ox_mat_t* dst) { ox_mat_scale(&three, a, dst); },
      [](T a, T) { return three * a; });
  add_case(
      "neg", [](const ox_mat_t* a, const ox_mat_t*, ox_mat_t* dst) { ox_mat_neg(a, dst); }, [](T a, T) { return -a; });
}

template <class T> void add_transpose(std::vector<Case>& cases) {
  constexpr int n = kTransposeSize;
  const std::string name = std::string(name_of<T>()) + "/transpose/" + std::to_string(n);
  cases.push_back({name,
                   [](unsigned count) {
                     auto values = numbers<T>(n * n, 1);
                     std::vector<T> result(n * n);
                     ox_mat_t src = over(values, n, n), dst = over(result, n, n);
                     return counted(
                         count, [&] { ox_mat_transpose(&src, &dst); },
                         [&] {
                           for (std::size_t i = 0; i < n * n; ++i)
                             if (result[i] != values[i % n * n + i / n]) return false;
                           return true;
                         });
                   },
                   "eigen/" + name + ",loops/" + name, ""});
}

void add_inverse(std::vector<Case>& cases, int n) {
  const std::string name = "f32/inv/" + std::to_string(n);
  cases.push_back({name,
                   [n](unsigned count) {
                     auto values = invertible(n);
                     std::vector<float> result(values.size());
                     ox_mat_t src = over(values, n, n), dst = over(result, n, n);
                     return counted(
                         count, [&] { ox_mat_inv(&src, &dst); },
                         [&] { return is_inverse(n, values.data(), result.data()); });
                   },
                   "eigen/" + name, ""});
}

void set(const ox_mat_t* m, const float* values) {
  std::copy(values, values + m->rows * m->cols, static_cast<float*>(m->data));
}

void add_filter(std::vector<Case>& cases, Steps steps, const char* goal) {
  const std::string name = std::string("kalman-8-4/") + name_of(steps);
  cases.push_back({name,
                   [steps](unsigned count) {
                     ox_kalman_t* const kf =
                         ox_kalman_create(kStates, kMeasured, 0, nullptr, nullptr, nullptr, nullptr);
                     if (!kf) return false;
                     const FilterModel& model = filter_model();
                     set(kf->transition_matrix, model.A);
                     set(kf->measurement_matrix, model.H);
                     set(kf->process_noise_cov, model.Q);
                     set(kf->measurement_noise_cov, model.R);
                     set(kf->state_post, model.x);
                     set(kf->error_cov_post, model.P);
                     auto measured = std::vector<float>(model.z, model.z + kMeasured);
                     const ox_mat_t z = over(measured, kMeasured, 1);
                     // Corrections alone all start from this one prediction.
                     if (steps == kCorrect) ox_kalman_predict(kf);
                     const auto right = [&] {
                       const bool pre = steps == kPredict;
                       return is_filtered(steps, static_cast<float*>((pre ? kf->state_pre : kf->state_post)->data),
                                          static_cast<float*>((pre ? kf->error_cov_pre : kf->error_cov_post)->data));
                     };
                     bool ok = false;
                     if (steps == kPredict)
                       ok = counted(
                           count, [&] { ox_kalman_predict(kf); }, right);
                     if (steps == kCorrect)
                       ok = counted(
                           count, [&] { ox_kalman_correct(kf, &z); }, right);
                     if (steps == kBoth)
                       ok = counted(
                           count, [&] { ox_kalman_predict(kf), ox_kalman_correct(kf, &z); }, right);
                     ox_kalman_release(kf);
                     return ok;
                   },
                   "eigen/" + name + ",eigen-lazy/" + name, goal});
}

// Objects on a lattice swing along x, 8 frames a round, one unit a frame; every one is detected.
constexpr int kFrames = 8;
void add_tracker(std::vector<Case>& cases, int objects) {
  const auto run = [objects](unsigned count) {
    const auto room = static_cast<std::size_t>(objects);
    std::vector<float> boxes[kFrames], results(8 * room);
    for (int frame = 0; frame < kFrames; ++frame) {
      const float shift = static_cast<float>(frame < kFrames / 2 ? frame : kFrames - frame);
      for (int i = 0; i < objects; ++i) {
        const float x = 60.0f * static_cast<float>(i % 10) + shift, y = 60.0f * static_cast<float>(i / 10);
        boxes[frame].insert(boxes[frame].end(), {1, x, y, x + 40, y + 50, 0.9f});
      }
      boxes[frame].push_back(0);  // the end mark, which a full list does not need
    }
    ox_tracker_t* const tracker = ox_tracker_create(0, 0, objects, 2, 5, 0, 1.0f, 0.1f);
    if (!tracker) return false;
    unsigned frame = 0;
    const auto process = [&] { ox_tracker_process(tracker, boxes[frame++ % kFrames].data(), results.data()); };
    for (int i = 0; i < 5 * kFrames; ++i) process();
    // Every object has its own track, in order of birth, within 3 units of where it is.
    return counted(count, process, [&] {
      const std::vector<float>& seen = boxes[(frame - 1) % kFrames];
      for (std::size_t i = 0; i < room; ++i) {
        const float *track = &results[8 * i], *box = &seen[6 * i];
        if (track[0] != static_cast<float>(i + 1) || track[7] != static_cast<float>(i)) return false;
        for (int side = 1; side <= 4; ++side)
          if (!(std::fabs(track[1 + side] - box[side]) <= 3)) return false;
      }
      return true;
    });
  };
  cases.push_back({"tracker-frame/" + std::to_string(objects), run, "", ""});
}

}  // namespace

void add_library_cases(std::vector<Case>& cases) {
  for (const Form form : kForms)
    for (const int n : kProductSizes) {
      const char* const goal = form != kPlain ? "" : n == 8 ? "800" : n == 32 ? "20000" : "";
      if (form == kPlain)
        add_product<float>(cases, n, form, {"eigen", "loops", "loops-by-rows"}, goal);
      else
        add_product<float>(cases, n, form, {"eigen"}, goal);
    }
  for (const int n : {8, 32}) add_product<int8_t>(cases, n, kPlain, {"loops", "loops-by-rows"}, n == 32 ? "half" : "");
  for (const int n : {8, 32}) add_product<int16_t>(cases, n, kPlain, {"loops", "loops-by-rows"}, n == 32 ? "half" : "");
  for (const int n : {8, 32}) add_product<int32_t>(cases, n, kPlain, {"loops", "loops-by-rows"}, "");
  for (const int n : kInverseSizes) add_inverse(cases, n);
  for (const Steps steps : kSteps) add_filter(cases, steps, steps == kBoth ? "4000" : "");
  for (const int objects : {10, 100}) add_tracker(cases, objects);
  add_elementwise<float>(cases);
  add_elementwise<int16_t>(cases);
  add_transpose<float>(cases);
  add_transpose<uint8_t>(cases);
}

}  // namespace calls

int main(int argc, char** argv) {
  std::vector<calls::Case> cases;
  calls::add_library_cases(cases);
  const std::size_t own = cases.size();
  calls::add_rival_cases(cases);
  if (argc == 1) {
    const auto shown = [](const std::string& field) { return field.empty() ? "-" : field.c_str(); };
    for (std::size_t i = 0; i < own; ++i)
      std::printf("%s %s %s\n", cases[i].name.c_str(), shown(cases[i].rivals), shown(cases[i].goal));
    return 0;
  }
  const auto found = std::find_if(cases.begin(), cases.end(), [&](const calls::Case& c) { return c.name == argv[1]; });
  if (argc != 3 || found == cases.end()) {
    std::fprintf(stderr, "usage: calls [NAME COUNT]\n");
    return 2;
  }
  if (found->run(static_cast<unsigned>(std::atoi(argv[2])))) return 0;
  std::fprintf(stderr, "calls: %s: wrong result\n", argv[1]);
  return 1;
}
