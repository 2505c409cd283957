// SPDX-License-Identifier: MIT
#include "filter_calls.h"

#include <memory>
#include <vector>

#include "alloc_hook.h"
#include "ox.h"
#include "unit/tracker_harness.h"

namespace fuzz {
namespace {

using harness::floats;
using Floats = std::vector<float>;

constexpr int kMostCalls = 12;

// Diagonals make filters that live; the rest make singular ones, overflow and NaNs.
void fill(Input& input, Floats& values, std::size_t cols) {
  const std::uint8_t kind = input.byte();
  const float scale = input.pick({1.0f, 0.5f, 0.1f, 3.0f, 1e10f, 1e-20f, -1.0f, 1e30f});
  switch (kind % 4) {
    case 0:
      for (std::size_t i = 0; i < values.size(); ++i) values[i] = i / cols == i % cols ? scale : 0.0f;
      break;
    case 1:
      for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = scale * static_cast<float>((kind * i * 7 + i * i + kind) % 17) - scale;
      break;
    case 2:
      for (float& value : values) value = input.empty() ? scale : scale * static_cast<float>(input.byte() - 100);
      break;
    default:
      for (std::size_t i = 0; i < values.size() && i < 4; ++i) values[i] = harness::float_of(input.word());
      break;
  }
}

class Filter {
 public:
  Filter(Input& input, SameWorkArea& work_area) : input_(input) {
    const bool large = input.one_in(64);
    n_ = static_cast<std::size_t>(large ? input.between(0, 20) : input.between(0, 8));
    m_ = static_cast<std::size_t>(large ? input.between(38, 41) : input.between(0, 6));
    work_area.prepare(large ? 40 : 7);
    model_ = std::make_shared<reference::KalmanModel>(n_, m_);
    fill(input, model_->transition, n_);
    fill(input, model_->measurement, n_);
    fill(input, model_->process_noise, n_);
    fill(input, model_->measurement_noise, m_);
    ref_ = std::make_unique<reference::Kalman>(n_, m_, model_);
    make();
  }
  ~Filter() {
    ox_kalman_release(kf_);
    for (ox_mat_t* m : lent_) ox_mat_release(m);
  }
  Filter(const Filter&) = delete;
  Filter& operator=(const Filter&) = delete;

  void run() {
    if (kf_ == nullptr) return;
    check("a new filter");
    for (int i = 0; i < kMostCalls && !input_.empty(); ++i) {
      switch (input_.byte() % 4) {
        case 0:
          poke();
          break;
        case 1:
        case 2:
          ox_kalman_predict(kf_);
          ref_->predict();
          check("predict");
          break;
        default:
          correct();
          break;
      }
    }
  }

 private:
  static ox_mat_t* matrix(const Floats& values, std::size_t rows, std::size_t cols) {
    ox_mat_t* const m = ox_mat_create(static_cast<std::int32_t>(rows), static_cast<std::int32_t>(cols), OX_F32);
    if (m == nullptr) std::abort();
    if (!values.empty()) std::memcpy(m->data, values.data(), 4 * values.size());
    return m;
  }

  void make() {
    const bool lent = input_.one_in(2);
    if (lent) {
      lent_[0] = matrix(model_->transition, n_, n_);
      lent_[1] = matrix(model_->measurement, m_, n_);
      lent_[2] = matrix(model_->process_noise, n_, n_);
      lent_[3] = matrix(model_->measurement_noise, m_, m_);
    }
    const bool no_memory = input_.one_in(16);
    alloc_hook::reset();
    if (no_memory) alloc_hook::fail_from(1, 1);
    kf_ = ox_kalman_create(static_cast<std::uint32_t>(n_), static_cast<std::uint32_t>(m_), lent, lent_[0], lent_[1],
                           lent_[2], lent_[3]);
    alloc_hook::reset();
    if ((kf_ == nullptr) != no_memory) fail("ox_kalman_create");
    if (kf_ == nullptr || lent) return;
    const auto put = [](ox_mat_t* to, const Floats& values) {
      if (!values.empty()) std::memcpy(to->data, values.data(), 4 * values.size());
    };
    put(kf_->transition_matrix, model_->transition);
    put(kf_->measurement_matrix, model_->measurement);
    put(kf_->process_noise_cov, model_->process_noise);
    put(kf_->measurement_noise_cov, model_->measurement_noise);
  }

  // State and covariance are the caller's to write.
  void poke() {
    const bool state = input_.byte() % 2 == 0;
    Floats& values = state ? ref_->state_post : ref_->error_cov_post;
    fill(input_, values, state ? 1 : n_);
    if (!values.empty())
      std::memcpy(floats(state ? kf_->state_post : kf_->error_cov_post), values.data(), 4 * values.size());
  }

  void correct() {
    // One of another length is refused by the product that takes it; no other length fits.
    Floats z(input_.one_in(16) ? m_ + 1 : m_);
    fill(input_, z, 1);
    ox_mat_t* const measurement = matrix(z, z.size(), 1);
    ox_kalman_correct(kf_, measurement);
    ref_->correct(z);
    ox_mat_release(measurement);
    check("correct");
  }

  void check(const char* after) {
    const auto same = [&](const ox_mat_t* m, std::size_t rows, std::size_t cols, const Floats& values) {
      return harness::detail::same_matrix(m, static_cast<std::int32_t>(rows), static_cast<std::int32_t>(cols), values);
    };
    const char* field = nullptr;
    if (!same(kf_->state_pre, n_, 1, ref_->state_pre)) field = "state_pre";
    if (!same(kf_->state_post, n_, 1, ref_->state_post)) field = "state_post";
    if (!same(kf_->error_cov_pre, n_, n_, ref_->error_cov_pre)) field = "error_cov_pre";
    if (!same(kf_->error_cov_post, n_, n_, ref_->error_cov_post)) field = "error_cov_post";
    if (!same(kf_->gain, n_, m_, ref_->gain)) field = "gain";
    if (!same(kf_->temp1, n_, n_, ref_->temp1)) field = "temp1";
    if (!same(kf_->temp2, n_, m_, ref_->temp2)) field = "temp2";
    if (!same(kf_->temp3, m_, m_, ref_->temp3)) field = "temp3";
    if (!same(kf_->temp4, m_, m_, ref_->temp4)) field = "temp4";
    if (!same(kf_->temp5, m_, 1, ref_->temp5)) field = "temp5";
    if (!same(kf_->transition_matrix, n_, n_, model_->transition)) field = "transition_matrix";
    if (!same(kf_->measurement_matrix, m_, n_, model_->measurement)) field = "measurement_matrix";
    if (!same(kf_->process_noise_cov, n_, n_, model_->process_noise)) field = "process_noise_cov";
    if (!same(kf_->measurement_noise_cov, m_, m_, model_->measurement_noise)) field = "measurement_noise_cov";
    if (field != nullptr)
      fail(std::string(field) + " of a filter of " + std::to_string(n_) + " states and " + std::to_string(m_) +
           " measurements after " + after);
  }

  Input& input_;
  std::size_t n_ = 0, m_ = 0;
  std::shared_ptr<reference::KalmanModel> model_;
  std::unique_ptr<reference::Kalman> ref_;
  ox_kalman_t* kf_ = nullptr;
  ox_mat_t* lent_[4] = {};
};

}  // namespace

void run_filter(Input& input, SameWorkArea& work_area) { Filter(input, work_area).run(); }

}  // namespace fuzz
