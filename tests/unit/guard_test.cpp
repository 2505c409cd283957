// SPDX-License-Identifier: MIT
// Every routine with its operands beside pages that cannot be touched: first all end at such a page, then all begin
// behind one. Inputs and headers cannot be written either. Lengths and shapes walk over all lane boundaries.
#include <sys/syscall.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <string>

#include "reference/kalman.h"
#include "reference/tracker.h"
#include "support.h"
#include "tracker_harness.h"

namespace {

using support::Data;
using support::Placement;
using support::plain;

// Pages between forbidden ones, seen twice: the test fills the one view, the library is given the other, in which a
// write is as fatal as a step outside.
class ReadOnlyPages {
 public:
  explicit ReadOnlyPages(std::size_t most_bytes) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    usable_ = (most_bytes + 128 + page - 1) / page * page;
    mapped_ = usable_ + 2 * page;
    const int file = static_cast<int>(syscall(SYS_memfd_create, "guard", 0u));
    if (file < 0 || ftruncate(file, static_cast<off_t>(usable_)) != 0) throw std::bad_alloc();
    mapping_ = mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping_ == MAP_FAILED) throw std::bad_alloc();
    first_ = static_cast<unsigned char*>(mapping_) + page;
    void* const seen = mmap(first_, usable_, PROT_READ, MAP_SHARED | MAP_FIXED, file, 0);
    void* const filled = mmap(nullptr, usable_, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (seen == MAP_FAILED || filled == MAP_FAILED) throw std::bad_alloc();
    filled_ = static_cast<unsigned char*>(filled);
  }
  ~ReadOnlyPages() {
    munmap(mapping_, mapped_);
    munmap(filled_, usable_);
  }
  ReadOnlyPages(const ReadOnlyPages&) = delete;
  ReadOnlyPages& operator=(const ReadOnlyPages&) = delete;

  // As support::GuardedPages does it; the address can only be read.
  unsigned char* place(std::size_t bytes, Placement where) const {
    if (where.kind == Placement::kAtEnd) return first_ + usable_ - bytes - where.offset;
    return first_ + where.offset + (where.kind == Placement::kInside ? 64 : 0);
  }
  unsigned char* writable(const void* placed) const {
    return filled_ + (static_cast<const unsigned char*>(placed) - first_);
  }

 private:
  void* mapping_ = nullptr;
  std::size_t mapped_ = 0, usable_ = 0;
  unsigned char *first_ = nullptr, *filled_ = nullptr;
};

// One after the other: a scalar of 8 bytes may also stand 4 bytes off.
std::vector<Placement> both_ends(std::uint32_t type) {
  std::vector<Placement> places = {{Placement::kAtEnd, 0}, {Placement::kAtStart, 0}};
  if (reference::scalar_size(type) == 8) {
    places.push_back({Placement::kAtEnd, 4});
    places.push_back({Placement::kAtStart, 4});
  }
  return places;
}

std::size_t count_of(std::int32_t rows, std::int32_t cols, std::uint32_t type) {
  return static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols) * reference::channels(type);
}

constexpr std::size_t kMostBytes = 512 * 1024;

// A matrix that is only read.
struct Input {
  ReadOnlyPages head{sizeof(ox_mat_t)}, pages{kMostBytes};
  const ox_mat_t* m = nullptr;

  void lay(support::Random& random, std::uint32_t type, std::int32_t rows, std::int32_t cols, Placement where,
           Data kind) {
    const std::size_t count = count_of(rows, cols, type);
    unsigned char* const data = pages.place(count * reference::scalar_size(type), where);
    support::fill(random, type, pages.writable(data), count, kind);
    m = lay_header(head, support::header(type, rows, cols, data), where);
  }

  static ox_mat_t* lay_header(const ReadOnlyPages& head, const ox_mat_t& m, Placement where) {
    where.offset = 0;
    unsigned char* const at = head.place(sizeof m, where);
    std::memcpy(head.writable(at), &m, sizeof m);
    void* const address = at;
    return static_cast<ox_mat_t*>(address);
  }
};

// A matrix that is written; its header is not.
struct Output {
  ReadOnlyPages head{sizeof(ox_mat_t)};
  support::GuardedPages pages{kMostBytes};
  ox_mat_t* m = nullptr;

  void lay(support::Random& random, std::uint32_t type, std::int32_t rows, std::int32_t cols, Placement where) {
    const std::size_t count = count_of(rows, cols, type);
    unsigned char* const data = pages.place(count * reference::scalar_size(type), where);
    support::fill(random, type, data, count, Data::kTame);
    m = Input::lay_header(head, support::header(type, rows, cols, data), where);
  }
};

// Where the operands of one call lie, and what they are.
struct Shape {
  std::int32_t rows, cols;
};
struct Places {
  Placement in, out;
};

support::Random random_data(4101);

Input& input(int i) {
  static Input inputs[3];
  return inputs[i];
}
Output& output() {
  static Output out;
  return out;
}

// Lays the operands, calls the library, repeats the call with the reference on a copy of the result.
template <class Library, class Reference>
testing::AssertionResult agrees(std::uint32_t type, Places places, std::initializer_list<Shape> inputs, Shape result,
                                Library library, Reference expected_by) {
  int i = 0;
  const Data kind = support::any_kind(random_data);
  for (const Shape& shape : inputs) input(i++).lay(random_data, type, shape.rows, shape.cols, places.in, kind);
  Output& out = output();
  out.lay(random_data, type, result.rows, result.cols, places.out);
  const std::size_t count = count_of(result.rows, result.cols, type);
  support::Twin expected(out.m->data, count * reference::scalar_size(type));
  library(out.m);
  expected_by(plain(*out.m, expected.at(out.m->data)));
  const testing::AssertionResult values = support::same_values(type, out.m->data, expected.data(), count);
  const testing::AssertionResult beside = out.pages.intact();
  if (values && beside) return values;
  return testing::AssertionFailure() << values.message() << beside.message() << random_data << "type " << type
                                     << ", result " << result.rows << 'x' << result.cols << ", placement "
                                     << places.in.kind << '+' << places.in.offset;
}

const ox_mat_t* in(int i) { return input(i).m; }

// Calls f(places) for both ends, and for each start of the inputs in a vector with the result elsewhere.
template <class F> void at_both_ends(std::uint32_t type, F f) {
  for (const Placement place : both_ends(type)) f(Places{place, place});
}
template <class F> void at_every_offset(std::uint32_t type, F f) {
  const std::size_t step = support::alignment(type);
  for (std::size_t offset = 0; offset < 64; offset += step)
    f(Places{{Placement::kInside, offset}, {Placement::kInside, (3 * offset + step) % 64}});
}

std::int32_t lanes_of(std::uint32_t type, std::int32_t vectors) {
  return vectors * static_cast<std::int32_t>(support::kWidestVectorBytes / reference::scalar_size(type));
}

// ------------------------------------------------------------------------------------ element-wise routines, fills

// Shapes of one row: all lengths to three vectors and one more beside the pages, some at every offset.
template <class OneRow> void sweep_rows(std::int32_t shortest, OneRow one_row) {
  for (std::uint32_t type = OX_U8; type <= OX_F64; ++type) {
    at_both_ends(type, [&](Places places) {
      for (std::int32_t n = shortest; n <= lanes_of(type, 3) + 1; ++n) ASSERT_TRUE(one_row(type, places, n));
    });
    at_every_offset(type, [&](Places places) {
      for (const std::int32_t n : {1, lanes_of(type, 1) - 1, lanes_of(type, 1), lanes_of(type, 2) + 3})
        ASSERT_TRUE(one_row(type, places, n));
    });
  }
}

void sweep_setzero() {
  sweep_rows(0, [](std::uint32_t type, Places places, std::int32_t n) {
    return agrees(type, places, {}, {1, n}, ox_mat_setzero, reference::setzero);
  });
}

void sweep_setone() {
  sweep_rows(0, [](std::uint32_t type, Places places, std::int32_t n) {
    return agrees(type, places, {}, {1, n}, ox_mat_setone, reference::setone);
  });
}

void sweep_setidentity() {
  for (const std::int32_t rows : {1, 2, 5})
    sweep_rows(1, [&](std::uint32_t type, Places places, std::int32_t n) {
      return agrees(type, places, {}, {rows, n}, ox_mat_setidentity, reference::setidentity);
    });
}

void sweep_setdiagonal() {
  for (const std::int32_t rows : {1, 2, 5})
    sweep_rows(1, [&](std::uint32_t type, Places places, std::int32_t n) {
      return agrees(
          type, places, {{1, std::min(rows, n)}}, {rows, n}, [](ox_mat_t* m) { ox_mat_setdiagonal(in(0)->data, m); },
          [](const reference::Matrix& m) {
            reference::setdiagonal(static_cast<const unsigned char*>(in(0)->data), m);
          });
    });
}

void sweep_neg() {
  sweep_rows(0, [](std::uint32_t type, Places places, std::int32_t n) {
    return agrees(
        type, places, {{1, n}}, {1, n}, [](ox_mat_t* dst) { ox_mat_neg(in(0), dst); },
        [](const reference::Matrix& dst) { reference::neg(plain(*in(0)), dst); });
  });
}

void sweep_scale() {
  sweep_rows(0, [](std::uint32_t type, Places places, std::int32_t n) {
    return agrees(
        type, places, {{1, n}, {1, 1}}, {1, n}, [](ox_mat_t* dst) { ox_mat_scale(in(1)->data, in(0), dst); },
        [](const reference::Matrix& dst) {
          reference::scale(static_cast<const unsigned char*>(in(1)->data), plain(*in(0)), dst);
        });
  });
}

void sweep_add() {
  sweep_rows(0, [](std::uint32_t type, Places places, std::int32_t n) {
    return agrees(
        type, places, {{1, n}, {1, n}}, {1, n}, [](ox_mat_t* dst) { ox_mat_add(in(0), in(1), dst); },
        [](const reference::Matrix& dst) { reference::add(plain(*in(0)), plain(*in(1)), dst); });
  });
}

void sweep_sub() {
  sweep_rows(0, [](std::uint32_t type, Places places, std::int32_t n) {
    return agrees(
        type, places, {{1, n}, {1, n}}, {1, n}, [](ox_mat_t* dst) { ox_mat_sub(in(0), in(1), dst); },
        [](const reference::Matrix& dst) { reference::sub(plain(*in(0)), plain(*in(1)), dst); });
  });
}

void sweep_print() {
  for (std::uint32_t type = OX_U8; type <= OX_F64; ++type)
    at_both_ends(type, [&](Places places) {
      for (const std::int32_t rows : {0, 1, 3}) {
        input(0).lay(random_data, type, rows, 5, places.in, Data::kTame);
        std::fflush(stdout);
        testing::internal::CaptureStdout();
        ox_mat_print("M", in(0));
        std::fflush(stdout);
        ASSERT_EQ(testing::internal::GetCapturedStdout(), reference::print_text("M", plain(*in(0))));
      }
    });
}

// --------------------------------------------------------------------------------- transposition, products, inverse

// Lengths at which vectors of any width are full, or one scalar off; with every one in between where a call is cheap.
std::vector<std::int32_t> boundaries(std::uint32_t type, std::int32_t vectors) {
  std::set<std::int32_t> lengths = {1, 2, 3, 5, 6, 7};
  for (const std::size_t bytes : {16u, 32u, 64u})
    for (std::int32_t v = 1; v <= vectors; ++v) {
      const auto full = v * static_cast<std::int32_t>(bytes / reference::scalar_size(type));
      for (std::int32_t n = std::max(1, full - 1); n <= full + 1; ++n) lengths.insert(n);
    }
  return {lengths.begin(), lengths.end()};
}

void sweep_transpose() {
  for (std::uint32_t type = OX_U8; type <= OX_F64; ++type) {
    const auto one = [&](std::uint32_t full_type, Places places, std::int32_t rows, std::int32_t cols) {
      return agrees(
          full_type, places, {{rows, cols}}, {cols, rows}, [](ox_mat_t* dst) { ox_mat_transpose(in(0), dst); },
          [](const reference::Matrix& dst) { reference::transpose(plain(*in(0)), dst); });
    };
    at_both_ends(type, [&](Places places) {
      for (std::int32_t n = 1; n <= lanes_of(type, 2) + 1; ++n)
        for (const std::int32_t other : support::kLight ? std::vector<std::int32_t>{1, 3, 17} : boundaries(type, 1)) {
          ASSERT_TRUE(one(type, places, n, other));
          ASSERT_TRUE(one(type, places, other, n));
        }
      for (const int channels : {2, 3, 32})
        for (std::int32_t n = 1; n <= 5; ++n) ASSERT_TRUE(one(OX_TYPE(type, channels), places, n, 3));
    });
    at_every_offset(type, [&](Places places) {
      ASSERT_TRUE(one(type, places, lanes_of(type, 1) + 1, lanes_of(type, 1) + 3));
      ASSERT_TRUE(one(type, places, 5, lanes_of(type, 1)));
    });
  }
}

// One product as its routine names it: a and b as they lie, then the result.
struct Form {
  std::uint32_t flags;
  bool a_transposed, b_transposed, addend;
  void (*library)(ox_mat_t* dst, std::uint32_t flags);
  void (*reference)(const reference::Matrix& dst, std::uint32_t flags);
};

testing::AssertionResult product_agrees(const Form& form, std::uint32_t type, Places places, std::int32_t m,
                                        std::int32_t n, std::int32_t k) {
  const Shape a = form.a_transposed ? Shape{k, m} : Shape{m, k}, b = form.b_transposed ? Shape{n, k} : Shape{k, n};
  const auto library = [&](ox_mat_t* dst) { form.library(dst, form.flags); };
  const auto reference = [&](const reference::Matrix& dst) { form.reference(dst, form.flags); };
  const testing::AssertionResult result =
      form.addend ? agrees(type, places, {a, b, {m, n}}, {m, n}, library, reference)
                  : agrees(type, places, {a, b}, {m, n}, library, reference);
  if (result) return result;
  return testing::AssertionFailure() << result.message() << ", terms " << k << ", flags " << form.flags;
}

void sweep_products(const std::vector<Form>& forms) {
  for (const Form& form : forms)
    for (std::uint32_t type = OX_U8; type <= OX_F64; ++type) {
      const auto one = [&](Places places, std::int32_t m, std::int32_t n, std::int32_t k) {
        return product_agrees(form, type, places, m, n, k);
      };
      at_both_ends(type, [&](Places places) {
        for (const std::int32_t m : {1, 2, 3, 5, 9})
          for (const std::int32_t k : {1, 2, 5}) {
            if (support::kLight && (m + k) % 2 == 0) continue;
            for (std::int32_t n = 1; n <= lanes_of(type, 2) + 1; ++n) ASSERT_TRUE(one(places, m, n, k));
          }
        // The number of terms, and of rows, walk too.
        for (const std::int32_t n : boundaries(type, 2))
          for (const std::int32_t few : {1, 3, 4}) {
            ASSERT_TRUE(one(places, 3, few, n));
            ASSERT_TRUE(one(places, n, few, 3));
            ASSERT_TRUE(one(places, 1, few, n));
          }
        // Factors of more than 32 KiB.
        const std::int32_t wide = lanes_of(type, 2) + 3, long_ = 36000 / lanes_of(type, 2) / (64 / lanes_of(type, 1));
        ASSERT_TRUE(one(places, 33, wide, long_));
      });
      at_every_offset(type, [&](Places places) {
        ASSERT_TRUE(one(places, 5, lanes_of(type, 1), 5));
        ASSERT_TRUE(one(places, 3, lanes_of(type, 1) + 3, 4));
        ASSERT_TRUE(one(places, 4, 3, lanes_of(type, 1)));
      });
    }
}

void sweep_mul() {
  const auto library = [](ox_mat_t* dst, std::uint32_t flags) { ox_mat_mul(in(0), in(1), dst, flags); };
  const auto reference = [](const reference::Matrix& dst, std::uint32_t flags) {
    reference::mul(plain(*in(0)), plain(*in(1)), dst, flags);
  };
  sweep_products({{0, false, false, false, library, reference},
                  {OX_MAT_TRANSPOSE_A, true, false, false, library, reference},
                  {OX_MAT_TRANSPOSE_B, false, true, false, library, reference}});
}

void sweep_muladd() {
  const auto library = [](ox_mat_t* dst, std::uint32_t flags) { ox_mat_muladd(in(0), in(1), in(2), dst, flags); };
  const auto reference = [](const reference::Matrix& dst, std::uint32_t flags) {
    reference::muladd(plain(*in(0)), plain(*in(1)), plain(*in(2)), dst, flags);
  };
  sweep_products({{0, false, false, true, library, reference},
                  {OX_MAT_TRANSPOSE_B, false, true, true, library, reference}});
}

void sweep_submul() {
  sweep_products(
      {{0, false, false, true,
        [](ox_mat_t* dst, std::uint32_t flags) { ox_mat_submul(in(2), in(0), in(1), dst, flags); },
        [](const reference::Matrix& dst, std::uint32_t flags) {
          const reference::Matrix c = plain(*in(2));
          reference::submul(&c, plain(*in(0)), plain(*in(1)), dst, flags);
        }},
       {OX_MAT_IDENTITY_C, false, false, false,
        [](ox_mat_t* dst, std::uint32_t flags) { ox_mat_submul(nullptr, in(0), in(1), dst, flags); },
        [](const reference::Matrix& dst, std::uint32_t flags) {
          reference::submul(nullptr, plain(*in(0)), plain(*in(1)), dst, flags);
        }}});
}

void sweep_inv() {
  reference::Inverter inverter;
  const auto one = [&](Places places, std::int32_t n) {
    return agrees(
        OX_F32, places, {{n, n}}, {n, n},
        [&](ox_mat_t* dst) {
          // A diagonal that outweighs the rest: a last pivot of zero would show what earlier calls left behind.
          for (std::int32_t i = 0; i < n; ++i) {
            const float heavy = 1e6f + static_cast<float>(i);
            std::memcpy(input(0).pages.writable(in(0)->data) + sizeof(float) * static_cast<std::size_t>(i * (n + 1)),
                        &heavy, sizeof heavy);
          }
          for (std::int32_t i = 0; i < n * n; ++i) {
            float value;
            unsigned char* const at =
                input(0).pages.writable(in(0)->data) + sizeof(float) * static_cast<std::size_t>(i);
            std::memcpy(&value, at, sizeof value);
            if (!(std::fabs(value) < 2e6f)) std::memset(at, 0, sizeof value);
          }
          EXPECT_EQ(ox_mat_inv(in(0), dst), 0);
        },
        [&](const reference::Matrix& dst) { inverter.inv(plain(*in(0)), dst); });
  };
  at_both_ends(OX_F32, [&](Places places) {
    for (std::int32_t n = 1; n <= 40; ++n) ASSERT_TRUE(one(places, n));
  });
  at_every_offset(OX_F32, [&](Places places) {
    for (const std::int32_t n : {1, 4, 7, 17}) ASSERT_TRUE(one(places, n));
  });
}

// --------------------------------------------------------------------------------------------------------- bare arrays

// Two inputs, or one, of so many floats and a result.
template <class Library, class Reference>
void sweep_floats(std::int32_t left, std::int32_t right, std::int32_t result, Library library, Reference expected_by) {
  const auto floats = [](const void* p) { return static_cast<const float*>(p); };
  const auto one = [&](Places places) {
    ASSERT_TRUE(agrees(
        OX_F32, places, {{1, left}, {1, right}}, {1, result},
        [&](ox_mat_t* dst) { library(floats(in(0)->data), floats(in(1)->data), static_cast<float*>(dst->data)); },
        [&](const reference::Matrix& dst) {
          std::vector<float> values(static_cast<std::size_t>(result));
          std::memcpy(values.data(), dst.data, values.size() * sizeof(float));
          expected_by(floats(in(0)->data), floats(in(1)->data), values.data());
          std::memcpy(dst.data, values.data(), values.size() * sizeof(float));
        }));
  };
  for (int i = 0; i < support::scaled(20); ++i) at_both_ends(OX_F32, one);
  at_every_offset(OX_F32, one);
}

void sweep_3x3() { sweep_floats(9, 9, 9, _matmult_3x3, reference::matmult_3x3); }
void sweep_3x3t() { sweep_floats(9, 9, 9, _matmult_3x3t, reference::matmult_3x3t); }
void sweep_3x3vec() { sweep_floats(9, 3, 3, _matmult_3x3vec, reference::matmult_3x3vec); }
void sweep_3x3tvec() { sweep_floats(9, 3, 3, _matmult_3x3tvec, reference::matmult_3x3tvec); }
void sweep_outp() { sweep_floats(3, 3, 9, _vecoutp_3, reference::vecoutp_3); }
void sweep_crossp() { sweep_floats(3, 3, 3, _veccrossp_3, reference::veccrossp_3); }
void sweep_dotp() {
  sweep_floats(
      3, 3, 1, [](const float* u, const float* v, float* w) { *w = _vecdotp_3(u, v); },
      [](const float* u, const float* v, float* w) { *w = reference::vecdotp_3(u, v); });
}
void sweep_det() {
  sweep_floats(
      9, 0, 1, [](const float* A, const float*, float* w) { *w = _matdet_3x3(A); },
      [](const float* A, const float*, float* w) { *w = reference::matdet_3x3(A); });
}
void sweep_neg_3x3() {
  sweep_floats(
      0, 0, 9, [](const float*, const float*, float* A) { _matneg_3x3(A); },
      [](const float*, const float*, float* A) { reference::matneg_3x3(A); });
}

// ---------------------------------------------------------------------------------------------------- filter, tracker

// Every matrix of the filter beside a page: its fields may be written, so they lead to the test's own matrices.
class GuardedFilter {
 public:
  GuardedFilter(std::uint32_t n, std::uint32_t m, Placement where)
      : kf_(ox_kalman_create(n, m, 1, nullptr, nullptr, nullptr, nullptr)),
        model_(std::make_shared<reference::KalmanModel>(n, m)),
        expected_(n, m, model_) {
    const auto rows = static_cast<std::int32_t>(n), few = static_cast<std::int32_t>(m);
    const auto fill = [&](std::vector<float>& values, std::int32_t side, bool heavy) {
      support::fill(random_data, OX_F32, values.data(), values.size(), Data::kTame);
      for (std::int32_t i = 0; heavy && i < side; ++i) values[static_cast<std::size_t>(i * (side + 1))] += 1e5f;
    };
    fill(model_->transition, rows, false);
    fill(model_->measurement, rows, false);
    fill(model_->process_noise, rows, true);
    fill(model_->measurement_noise, few, true);
    fill(expected_.state_post, rows, false);
    fill(expected_.error_cov_post, rows, true);
    kf_->transition_matrix = lend(0, rows, rows, model_->transition, where);
    kf_->measurement_matrix = lend(1, few, rows, model_->measurement, where);
    kf_->process_noise_cov = lend(2, rows, rows, model_->process_noise, where);
    kf_->measurement_noise_cov = lend(3, few, few, model_->measurement_noise, where);
    own(0, &ox_kalman_t::state_pre, rows, 1, &expected_.state_pre, where);
    own(1, &ox_kalman_t::state_post, rows, 1, &expected_.state_post, where);
    own(2, &ox_kalman_t::error_cov_pre, rows, rows, &expected_.error_cov_pre, where);
    own(3, &ox_kalman_t::error_cov_post, rows, rows, &expected_.error_cov_post, where);
    own(4, &ox_kalman_t::gain, rows, few, &expected_.gain, where);
    own(5, &ox_kalman_t::temp1, rows, rows, &expected_.temp1, where);
    own(6, &ox_kalman_t::temp2, rows, few, &expected_.temp2, where);
    own(7, &ox_kalman_t::temp3, few, few, &expected_.temp3, where);
    own(8, &ox_kalman_t::temp4, few, few, &expected_.temp4, where);
    own(9, &ox_kalman_t::temp5, few, 1, &expected_.temp5, where);
    z_.resize(m);
    support::fill(random_data, OX_F32, z_.data(), z_.size(), Data::kTame);
    measurement_ = lend(4, few, 1, z_, where);
  }
  ~GuardedFilter() { ox_kalman_release(kf_); }
  GuardedFilter(const GuardedFilter&) = delete;
  GuardedFilter& operator=(const GuardedFilter&) = delete;

  testing::AssertionResult predicts() {
    ox_kalman_predict(kf_);
    expected_.predict();
    return same();
  }
  testing::AssertionResult corrects() {
    ox_kalman_correct(kf_, measurement_);
    expected_.correct(z_);
    return same();
  }

 private:
  static Output& output_of(int i) {
    static Output outputs[10];
    return outputs[i];
  }
  static Input& input_of(int i) {
    static Input inputs[5];
    return inputs[i];
  }

  static ox_mat_t* lend(int i, std::int32_t rows, std::int32_t cols, const std::vector<float>& values,
                        Placement where) {
    Input& lent = input_of(i);
    unsigned char* const data = lent.pages.place(values.size() * sizeof(float), where);
    std::memcpy(lent.pages.writable(data), values.data(), values.size() * sizeof(float));
    return Input::lay_header(lent.head, support::header(OX_F32, rows, cols, data), where);
  }

  void own(int i, ox_mat_t* ox_kalman_t::*field, std::int32_t rows, std::int32_t cols, std::vector<float>* values,
           Placement where) {
    Output& owned = output_of(i);
    owned.lay(random_data, OX_F32, rows, cols, where);
    std::memcpy(owned.m->data, values->data(), values->size() * sizeof(float));
    kf_->*field = owned.m;
    slots_.push_back({&owned, values});
  }

  testing::AssertionResult same() const {
    for (std::size_t i = 0; i < slots_.size(); ++i) {
      const auto& [owned, values] = slots_[i];
      const testing::AssertionResult equal =
          support::same_values(OX_F32, owned->m->data, values->data(), values->size());
      const testing::AssertionResult beside = owned->pages.intact();
      if (!equal || !beside)
        return testing::AssertionFailure() << equal.message() << beside.message() << "matrix " << i << " of "
                                           << kf_->state_dim << " states, " << kf_->meas_dim << " measurements";
    }
    return testing::AssertionSuccess();
  }

  ox_kalman_t* kf_;
  std::shared_ptr<reference::KalmanModel> model_;
  reference::Kalman expected_;
  std::vector<std::pair<Output*, std::vector<float>*>> slots_;
  std::vector<float> z_;
  ox_mat_t* measurement_ = nullptr;
};

template <class F> void sweep_filters(F f) {
  for (const Placement where : both_ends(OX_F32))
    for (std::uint32_t n = 1; n <= 18; ++n)
      for (const std::uint32_t m : {1u, 2u, 3u, 4u, 5u, 9u, 17u}) {
        GuardedFilter filter(n, m, where);
        ASSERT_TRUE(f(filter));
      }
}
void sweep_predict() {
  sweep_filters([](GuardedFilter& filter) { return filter.predicts(); });
}
void sweep_correct() {
  sweep_filters([](GuardedFilter& filter) {
    const testing::AssertionResult predicted = filter.predicts();
    return predicted ? filter.corrects() : predicted;
  });
}

// The list of boxes ends with its last record, or with the label that ends it; the results with the last record that
// capacity allows.
void sweep_process() {
  static ReadOnlyPages boxes(65536);
  static support::GuardedPages results(65536);
  for (const Placement where : both_ends(OX_F32))
    for (std::int32_t capacity = 1; capacity <= 36; ++capacity)
      for (const std::int32_t taken : {capacity, capacity - 1, capacity / 2}) {
        harness::Params params;
        params.count = capacity;
        params.confirm_hits = 1;
        const auto tracker = harness::make_tracker(params);
        reference::Tracker expected(params.count, params.confirm_hits, params.max_misses, params.any_label,
                                    params.near_dist2, params.iou_threshold);
        for (int frame = 0; frame < 5; ++frame) {
          std::vector<float> list;
          for (std::int32_t i = 0; i < taken; ++i)
            harness::append(list, harness::centred(
                static_cast<float>(1 + i % 3), static_cast<float>(30 * i + frame), 7.0f, 20.0f, 12.0f));
          if (taken < capacity) list.push_back(0.0f);
          const std::size_t bytes = list.size() * sizeof(float);
          const std::size_t room = 8 * sizeof(float) * static_cast<std::size_t>(capacity);
          void* const given = boxes.place(bytes, where);
          if (bytes > 0) std::memcpy(boxes.writable(given), list.data(), bytes);
          void* const got = results.place(room, where);
          std::memset(got, 0x5A, room);
          std::vector<float> want(8 * static_cast<std::size_t>(capacity));
          std::memset(want.data(), 0x5A, room);
          ox_tracker_process(tracker.get(), static_cast<const float*>(given), static_cast<float*>(got));
          expected.process(list.data(), want.data());
          ASSERT_TRUE(support::same_values(OX_F32, got, want.data(), want.size())) << capacity << ' ' << taken;
          ASSERT_TRUE(results.intact());
          ASSERT_EQ(harness::difference(*tracker, expected), "") << capacity << ' ' << taken;
        }
      }
}

void sweep_initheader() {
  // The elements are not looked at: they are where nobody can.
  static support::GuardedPages heads(sizeof(ox_mat_t));
  static const ReadOnlyPages elements(4096);
  unsigned char* const forbidden = elements.place(0, {Placement::kAtEnd, 0});
  for (const Placement where : both_ends(OX_F32)) {
    void* const at = heads.place(sizeof(ox_mat_t), where);
    auto* const head = static_cast<ox_mat_t*>(at);
    ASSERT_EQ(ox_mat_initheader(head, 3, 5, OX_F64, forbidden), head);
    const ox_mat_t expected = support::header(OX_F64, 3, 5, forbidden);
    ASSERT_TRUE(support::same_bytes(head, &expected, sizeof expected));
    ASSERT_TRUE(heads.intact());
  }
}

void sweep_kalman_create() {
  // A lent model is kept, neither header nor elements are looked at.
  static const ReadOnlyPages elements(4096);
  void* const forbidden = elements.place(0, {Placement::kAtEnd, 0});
  auto* const lent = static_cast<ox_mat_t*>(forbidden);
  ox_kalman_t* const kf = ox_kalman_create(3, 2, 1, lent, lent, lent, lent);
  ASSERT_NE(kf, nullptr);
  EXPECT_EQ(kf->transition_matrix, lent);
  ox_kalman_release(kf);
}

// ---------------------------------------------------------------------------------------------------------- the table

struct Routine {
  const char* symbol;
  void (*sweep)();
  const char* why_not;  // where there is no sweep
};

const Routine kRoutines[] = {
    {"_matdet_3x3", sweep_det, nullptr},
    {"_matmult_3x3", sweep_3x3, nullptr},
    {"_matmult_3x3t", sweep_3x3t, nullptr},
    {"_matmult_3x3tvec", sweep_3x3tvec, nullptr},
    {"_matmult_3x3vec", sweep_3x3vec, nullptr},
    {"_matneg_3x3", sweep_neg_3x3, nullptr},
    {"_veccrossp_3", sweep_crossp, nullptr},
    {"_vecdotp_3", sweep_dotp, nullptr},
    {"_vecoutp_3", sweep_outp, nullptr},
    {"ox_kalman_correct", sweep_correct, nullptr},
    {"ox_kalman_create", sweep_kalman_create, nullptr},
    {"ox_kalman_predict", sweep_predict, nullptr},
    {"ox_kalman_release", nullptr, "frees a block from malloc"},
    {"ox_mat_add", sweep_add, nullptr},
    {"ox_mat_create", nullptr, "no array operand"},
    {"ox_mat_initheader", sweep_initheader, nullptr},
    {"ox_mat_inv", sweep_inv, nullptr},
    {"ox_mat_mul", sweep_mul, nullptr},
    {"ox_mat_muladd", sweep_muladd, nullptr},
    {"ox_mat_neg", sweep_neg, nullptr},
    {"ox_mat_print", sweep_print, nullptr},
    {"ox_mat_release", nullptr, "frees a block from malloc"},
    {"ox_mat_scale", sweep_scale, nullptr},
    {"ox_mat_setdiagonal", sweep_setdiagonal, nullptr},
    {"ox_mat_setidentity", sweep_setidentity, nullptr},
    {"ox_mat_setone", sweep_setone, nullptr},
    {"ox_mat_setzero", sweep_setzero, nullptr},
    {"ox_mat_sub", sweep_sub, nullptr},
    {"ox_mat_submul", sweep_submul, nullptr},
    {"ox_mat_transpose", sweep_transpose, nullptr},
    {"ox_tracker_create", nullptr, "no array operand"},
    {"ox_tracker_process", sweep_process, nullptr},
    {"ox_tracker_release", nullptr, "frees blocks from malloc"},
    {"ox_tracker_set_params", nullptr, "no array operand"},
};

class Guard : public testing::TestWithParam<Routine> {};

TEST_P(Guard, KeepsToItsOperands) {
  if (!GetParam().sweep) {
    ASSERT_NE(GetParam().why_not, nullptr);
    return;
  }
  GetParam().sweep();
}

INSTANTIATE_TEST_SUITE_P(Table, Guard, testing::ValuesIn(kRoutines),
                         [](const testing::TestParamInfo<Routine>& row) { return std::string(row.param.symbol); });

TEST(GuardTable, HasEveryExportedRoutine) {
  std::ifstream file(OX_SYMBOLS);
  std::set<std::string> exported, listed;
  for (std::string line; std::getline(file, line);) exported.insert(line);
  for (const Routine& routine : kRoutines) listed.insert(routine.symbol);
  ASSERT_FALSE(exported.empty()) << OX_SYMBOLS;
  EXPECT_EQ(listed, exported);
}

// ------------------------------------------------------------------------------------------------- the guard itself

#if GTEST_HAS_DEATH_TEST
bool killed(int status) { return status != 0; }

TEST(GuardItselfDeathTest, FindsAPlantedOverreadAndOverwrite) {
  for (const bool written : {false, true})
    for (const Placement where : both_ends(OX_F32)) {
      input(0).lay(random_data, OX_F32, 3, 5, where, Data::kTame);
      output().lay(random_data, OX_F32, 3, 5, where);
      const std::size_t bytes = 3 * 5 * sizeof(float);
      volatile unsigned char* const first =
          static_cast<volatile unsigned char*>(written ? output().m->data : in(0)->data);
      volatile unsigned char* const beside = where.kind == Placement::kAtEnd ? first + bytes : first - 1;
      EXPECT_EXIT(
          {
            if (written)
              *beside = 1;
            else
              static_cast<void>(*beside);
            std::_Exit(0);
          },
          killed, "");
      EXPECT_EXIT(
          {
            static_cast<void>(*first);
            std::_Exit(0);
          },
          testing::ExitedWithCode(0), "");
    }
  // An input, and a header, written to.
  volatile auto* const element = static_cast<volatile unsigned char*>(in(0)->data);
  EXPECT_EXIT({ *element = 1; std::_Exit(0); }, killed, "");
  volatile auto* const rows = &output().m->rows;
  EXPECT_EXIT({ *rows = 1; std::_Exit(0); }, killed, "");
}
#endif

TEST(GuardItself, FindsAWriteBesideAnOperandInside) {
  for (const std::ptrdiff_t beside : {-1, 60}) {
    output().lay(random_data, OX_F32, 3, 5, {Placement::kInside, 8});
    ASSERT_TRUE(output().pages.intact());
    static_cast<unsigned char*>(output().m->data)[beside] ^= 1;
    EXPECT_FALSE(output().pages.intact());
  }
}

}  // namespace
