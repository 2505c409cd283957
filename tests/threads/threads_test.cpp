// SPDX-License-Identifier: MIT
// What docs/threads.md allows to run at once, run at once under ThreadSanitizer. What each thread computes must equal,
// byte for byte, what one thread alone computes afterwards.
//   threads_test at-once       all of it; its first calls are the first use of the library
//   threads_test unserialised  two threads invert without the lock: the sanitizer must report it
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "kernels/kernels.h"
#include "ox.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 6;

using Bytes = std::vector<unsigned char>;

// Holds each thread until all have come, as often as it is asked to.
class Barrier {
 public:
  explicit Barrier(int threads) : threads_(threads) {}
  void wait() {
    const int all = (++arrived_ + threads_ - 1) / threads_ * threads_;
    while (arrived_ < all) std::this_thread::yield();
  }

 private:
  const int threads_;
  std::atomic<int> arrived_{0};
};

// The caller's lock around every call that inverts.
std::mutex inverses;

void take(Bytes& log, const void* data, std::size_t bytes) {
  const auto* const p = static_cast<const unsigned char*>(data);
  log.insert(log.end(), p, p + bytes);
}
void take(Bytes& log, const ox_mat_t* m) {
  take(log, m->data, static_cast<std::size_t>(m->rows) * static_cast<std::size_t>(m->step));
}

std::size_t scalar_size(std::uint32_t depth) {
  constexpr std::size_t sizes[8] = {1, 1, 2, 2, 4, 4, 8, 8};
  return sizes[depth];
}

// Small numbers, different in every place, the same in every run.
void fill(std::uint32_t depth, void* data, std::size_t count, std::size_t seed) {
  for (std::size_t i = 0; i < count; ++i) {
    const auto value = static_cast<int>((i * 7919 + seed * 104729) % 101) - 50;
    void* const at = static_cast<unsigned char*>(data) + i * scalar_size(depth);
    const auto store = [at](auto scalar) { std::memcpy(at, &scalar, sizeof scalar); };
    switch (scalar_size(depth) + (depth == OX_F32 || depth == OX_F64 ? 100 : 0)) {
      case 1: store(static_cast<std::int8_t>(value)); break;
      case 2: store(static_cast<std::int16_t>(value)); break;
      case 4: store(static_cast<std::int32_t>(value)); break;
      case 8: store(static_cast<std::int64_t>(value)); break;
      case 104: store(static_cast<float>(value) * 0.37f); break;
      case 108: store(static_cast<double>(value) * 0.37); break;
    }
  }
}

// ------------------------------------------------------------------------------- what all threads read, none writes

constexpr std::int32_t kRows = 13, kCols = 11, kInner = 19;  // no multiples of a vector

struct Inputs {
  // By depth; a^T, b^T are the shapes of transposed factors.
  ox_mat_t *a[8], *at[8], *b[8], *bt[8], *c[8];
  ox_mat_t *transition, *measurement, *process_noise, *measurement_noise;  // of many filters
};

ox_mat_t* made(std::int32_t rows, std::int32_t cols, std::uint32_t depth, std::size_t seed) {
  ox_mat_t* const m = ox_mat_create(rows, cols, depth);
  if (!m) std::abort();
  fill(depth, m->data, static_cast<std::size_t>(rows * cols), seed);
  return m;
}

// Headers are laid by hand: no routine of the library is called before the threads call it.
struct InputStorage {
  std::vector<double> values = std::vector<double>(8 * 5 * 256 + 4 * 64);
  ox_mat_t headers[8 * 5 + 4] = {};
};

Inputs lay_inputs(InputStorage& storage) {
  double* place = storage.values.data();
  ox_mat_t* header = storage.headers;
  const auto lay = [&](std::uint32_t depth, std::int32_t rows, std::int32_t cols, std::size_t seed) {
    const auto size = static_cast<std::int32_t>(scalar_size(depth));
    *header = ox_mat_t{depth, rows, cols, cols * size, place};
    fill(depth, place, static_cast<std::size_t>(rows * cols), seed);
    place += static_cast<std::ptrdiff_t>(rows * cols);
    return header++;
  };
  Inputs in{};
  for (std::uint32_t d = 0; d < 8; ++d) {
    in.a[d] = lay(d, kRows, kInner, 1);
    in.at[d] = lay(d, kInner, kRows, 2);
    in.b[d] = lay(d, kInner, kCols, 3);
    in.bt[d] = lay(d, kCols, kInner, 4);
    in.c[d] = lay(d, kRows, kCols, 5);
  }
  const auto diagonal = [](ox_mat_t* m, float value) {
    auto* const p = static_cast<float*>(m->data);
    for (std::int32_t i = 0; i < m->rows * m->cols; ++i) p[i] = i % (m->cols + 1) == 0 ? value : 0.0f;
    return m;
  };
  in.transition = diagonal(lay(OX_F32, 6, 6, 0), 1.0f);
  for (std::ptrdiff_t i = 0; i < 3; ++i) static_cast<float*>(in.transition->data)[i * 6 + i + 3] = 1.0f;
  in.measurement = diagonal(lay(OX_F32, 3, 6, 0), 1.0f);
  in.process_noise = diagonal(lay(OX_F32, 6, 6, 0), 0.1f);
  in.measurement_noise = diagonal(lay(OX_F32, 3, 3, 0), 1.0f);
  return in;
}

// Results of all threads lie side by side: a store beyond a thread's own is a race with its neighbour.
class Outputs {
 public:
  Outputs() : values_(8 * kOperations * kPlace) {}

  ox_mat_t at(int operation, int who, std::uint32_t depth, std::int32_t rows, std::int32_t cols) {
    double* const place = values_.data() + (static_cast<int>(depth) * kOperations + operation) * kPlace;
    const auto size = static_cast<std::int32_t>(scalar_size(depth));
    return ox_mat_t{depth, rows, cols, cols * size, reinterpret_cast<unsigned char*>(place) + who * rows * cols * size};
  }

  static constexpr int kOperations = 16;

 private:
  static constexpr int kPlace = kThreads * kRows * kInner;  // of one depth and operation
  std::vector<double> values_;
};

struct Thread {
  int who;
  const Inputs& in;
  Outputs& out;
  Bytes log;
};

// ------------------------------------------------------------------------------------------------------ the phases

void matrices(Thread& t) {
  for (std::uint32_t d = 0; d < 8; ++d) {
    int operation = 0;
    const auto result = [&](std::int32_t rows, std::int32_t cols, auto&& call) {
      ox_mat_t m = t.out.at(operation++, t.who, d, rows, cols);
      fill(d, m.data, static_cast<std::size_t>(rows * cols), static_cast<std::size_t>(t.who));
      call(&m);
      take(t.log, &m);
    };
    alignas(8) unsigned char factor[8];
    fill(d, factor, 1, 3 + static_cast<std::size_t>(t.who));
    const Inputs& in = t.in;
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_setzero(m); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_setone(m); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_setidentity(m); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_setdiagonal(in.c[d]->data, m); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_neg(in.c[d], m); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_neg(m, m); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_scale(factor, in.c[d], m); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_add(in.c[d], m, m); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_sub(in.c[d], in.c[d], m); });
    result(kInner, kRows, [&](ox_mat_t* m) { ox_mat_transpose(in.a[d], m); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_mul(in.a[d], in.b[d], m, 0); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_mul(in.at[d], in.b[d], m, OX_MAT_TRANSPOSE_A); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_mul(in.a[d], in.bt[d], m, OX_MAT_TRANSPOSE_B); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_muladd(in.a[d], in.b[d], in.c[d], m, 0); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_muladd(in.a[d], in.bt[d], in.c[d], m, OX_MAT_TRANSPOSE_B); });
    result(kRows, kCols, [&](ox_mat_t* m) { ox_mat_submul(in.c[d], in.a[d], in.b[d], m, 0); });
    if (operation != Outputs::kOperations) std::abort();
    // Blocks of the library's own.
    ox_mat_t* const product = made(kRows, kCols, d, 7);
    ox_mat_submul(nullptr, in.a[d], in.b[d], product, OX_MAT_IDENTITY_C);
    take(t.log, product);
    ox_mat_print("product", product);
    ox_mat_release(product);
  }
}

void fixed_sizes(Thread& t) {
  const auto* const a = static_cast<const float*>(t.in.a[OX_F32]->data);
  const auto* const b = static_cast<const float*>(t.in.b[OX_F32]->data);
  float out[9 * 6 + 2];
  _matmult_3x3(a, b, out);
  _matmult_3x3t(a, b, out + 9);
  _vecoutp_3(a, b, out + 18);
  _matmult_3x3vec(a, b, out + 27);
  _matmult_3x3tvec(a, b, out + 30);
  _veccrossp_3(a, b, out + 33);
  for (int i = 0; i < 18; ++i) out[36 + i] = a[i + t.who];
  _matneg_3x3(out + 36);
  out[54] = _matdet_3x3(a);
  out[55] = _vecdotp_3(a, b);
  take(t.log, out, sizeof out);
}

// Filters of its own over a model that all threads read. Predictions need no lock.
void filters(Thread& t) {
  const Inputs& in = t.in;
  ox_kalman_t* const lent = ox_kalman_create(6, 3, 1, in.transition, in.measurement, in.process_noise,
                                             in.measurement_noise);
  ox_kalman_t* const own = ox_kalman_create(6, 3, 0, nullptr, nullptr, nullptr, nullptr);
  if (!lent || !own) std::abort();
  const auto copy = [](ox_mat_t* to, const ox_mat_t* from) {
    std::memcpy(to->data, from->data, static_cast<std::size_t>(from->rows * from->step));
  };
  copy(own->transition_matrix, in.transition);
  copy(own->measurement_matrix, in.measurement);
  copy(own->process_noise_cov, in.process_noise);
  copy(own->measurement_noise_cov, in.measurement_noise);
  for (ox_kalman_t* kf : {lent, own}) {
    ox_mat_setidentity(kf->error_cov_post);
    for (int step = 0; step < 12; ++step) {
      ox_kalman_predict(kf);
      take(t.log, kf->state_pre);
      take(t.log, kf->error_cov_pre);
      if (step % 3 == 2) continue;
      float z[3] = {static_cast<float>(step), static_cast<float>(t.who), static_cast<float>(step * t.who)};
      ox_mat_t measurement;
      ox_mat_initheader(&measurement, 3, 1, OX_F32, z);
      const std::lock_guard<std::mutex> lock(inverses);
      ox_kalman_correct(kf, &measurement);
    }
    take(t.log, kf->state_post);
    take(t.log, kf->error_cov_post);
    ox_kalman_release(kf);
  }
}

void inverse(Thread& t) {
  for (std::int32_t n : {1, 4, 7, 40}) {
    ox_mat_t* const m = made(n, n, OX_F32, static_cast<std::size_t>(t.who + 1));
    for (std::ptrdiff_t i = 0; i < n; ++i) static_cast<float*>(m->data)[i * n + i] += 300.0f;
    {
      const std::lock_guard<std::mutex> lock(inverses);
      if (ox_mat_inv(m, m) != 0) std::abort();
    }
    take(t.log, m);
    ox_mat_release(m);
  }
}

// A tracker of its own: the lock is for its frames only, not for its making, its parameters, its end.
void tracker(Thread& t) {
  ox_tracker_t* const tracker = ox_tracker_create(0, 0, 8, 2, 3, 0, 1.0f, 0.2f);
  if (!tracker) std::abort();
  for (int f = 0; f < 24; ++f) {
    if (f == 12) ox_tracker_set_params(tracker, 3, 1, 1, 0.5f, 0.1f);
    float boxes[8][6] = {};
    for (int i = 0; i < 5; ++i) {
      const int phase = (f + 5 * i + t.who) % 20;
      if (phase > 12) continue;  // a zero label ends the list here
      const auto x = static_cast<float>(20 * i + phase), y = static_cast<float>(10 * t.who + 2 * phase);
      const float box[6] = {1, x, y, x + 10, y + 14, static_cast<float>(f)};
      std::memcpy(boxes[i], box, sizeof box);
    }
    float results[8][8] = {};
    {
      const std::lock_guard<std::mutex> lock(inverses);
      ox_tracker_process(tracker, &boxes[0][0], &results[0][0]);
    }
    take(t.log, results, sizeof results);
    take(t.log, tracker->det_dist2, sizeof(float) * 8);
  }
  for (ox_track_t* track = tracker->next; static_cast<void*>(track) != static_cast<void*>(tracker);) {
    ox_track_t* const next = track->next;
    take(t.log, &track->id, sizeof track->id);
    if (track->kf) take(t.log, track->kf->error_cov_post);
    ox_kalman_release(track->kf);
    ox_mat_release(track->meas);
    std::free(track);
    track = next;
  }
  for (ox_mat_t* m : {tracker->transition_matrix, tracker->measurement_matrix, tracker->process_noise_cov,
                      tracker->measurement_noise_cov})
    ox_mat_release(m);
  ox_tracker_release(tracker);
}

// All begin each phase together, in turn the same one and different ones: the lock orders so much of what the threads
// do that a race can be seen only soon after such a start.
void everything(Thread& t, Barrier* barrier) {
  void (*const phases[])(Thread&) = {matrices, filters, tracker, inverse, fixed_sizes};
  for (int p = 0; p < 5 * kRounds; ++p) {
    const bool apart = p / 5 % 2 == 1;
    if (barrier) barrier->wait();
    phases[(p + (apart ? t.who : 0)) % 5](t);
  }
}

template <class F>
void at_once(int count, const F& f) {
  Barrier barrier(count);
  std::vector<std::thread> threads;
  for (int who = 0; who < count; ++who) threads.emplace_back([&, who] { f(who, barrier); });
  for (std::thread& thread : threads) thread.join();
}

int compare() {
  InputStorage storage;
  const Inputs in = lay_inputs(storage);
  Outputs out;
  Bytes logs[kThreads];
  at_once(kThreads, [&](int who, Barrier& barrier) {
    Thread t{who, in, out, {}};
    everything(t, &barrier);
    logs[who] = std::move(t.log);
  });
  int failures = 0;
  for (int who = 0; who < kThreads; ++who) {
    Thread alone{who, in, out, {}};
    everything(alone, nullptr);
    const bool same = alone.log == logs[who];
    std::fprintf(stderr, "thread %d: %zu bytes of results, %s\n", who, alone.log.size(), same ? "equal" : "DIFFERENT");
    if (!same || alone.log.empty()) ++failures;
  }
  return failures == 0 ? 0 : 1;
}

int unserialised() {
  at_once(2, [](int who, Barrier& barrier) {
    ox_mat_t* const m = made(4, 4, OX_F32, static_cast<std::size_t>(who + 1));
    barrier.wait();
    for (int i = 0; i < 1000; ++i) ox_mat_inv(m, m);
    ox_mat_release(m);
  });
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const char* const what = argc == 2 ? argv[1] : "";
#if defined(__x86_64__)
  // As for the unit tests: the widest vectors unless a width is asked for, through a hidden symbol of the archive.
  const char* const width = std::getenv("OX_TEST_WIDTH");
  if (width && *width) {
    ox::chosen_kernels = ox::kernels_of(std::atoi(width));
    if (ox::chosen_kernels->bytes != std::atoi(width)) return 77;
  }
#endif
  if (!std::freopen("/dev/null", "w", stdout)) return 1;  // ox_mat_print is run, not read
  if (std::strcmp(what, "at-once") == 0) return compare();
  if (std::strcmp(what, "unserialised") == 0) return unserialised();
  std::fprintf(stderr, "usage: threads_test at-once|unserialised\n");
  return 2;
}
