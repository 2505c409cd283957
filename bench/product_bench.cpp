// SPDX-License-Identifier: MIT
// Products of n x n matrices, n known at run time: three forms in single precision against every rival, integers
// against what the same vector width gives others, and each width against its register peak.
#include <libxsmm.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "contest.h"
#include "rivals/load.h"

namespace bench {
namespace {

struct Factors {
  unsigned depth;
  long n;
  void *a, *b, *dst;
};

Factors new_factors(unsigned depth, long n) {
  const auto count = static_cast<std::size_t>(n * n);
  Factors f{depth, n, new_array(depth, count), new_array(depth, count), new_array(depth, count)};
  if (depth == OX_F32) {
    fill_reals(static_cast<float*>(f.a), count, 1);
    fill_reals(static_cast<float*>(f.b), count, 2);
  } else {
    // Sums of 256 terms fit 16 bits, so that no signed sum overflows in a rival; in 8 bits they wrap.
    fill(depth, f.a, count, -11, 11, 1);
    fill(depth, f.b, count, -11, 11, 2);
  }
  return f;
}

// Each of the n terms is rounded when it is multiplied and at most n - 1 times when sums are formed, in whichever
// order: n * eps/2 * sum |a||b| to first order. Twice that leaves no room for doubt and none for a wrong term, as every
// |a||b| is at least 1/4. Integers are exact.
std::shared_ptr<Reference> product_reference(const Factors& f, unsigned flags) {
  return std::make_shared<Reference>([f, flags] {
    const long n = f.n;
    const auto count = static_cast<std::size_t>(n * n);
    std::vector<double> a(count), b(count);
    for (long r = 0; r < n; ++r)
      for (long c = 0; c < n; ++c) {
        const auto i = static_cast<std::size_t>(r * n + c), t = static_cast<std::size_t>(c * n + r);
        a[flags & OX_MAT_TRANSPOSE_A ? t : i] = scalar(f.depth, f.a, i);
        b[flags & OX_MAT_TRANSPOSE_B ? t : i] = scalar(f.depth, f.b, i);
      }
    Expected expected{std::vector<double>(count), std::vector<double>(count)};
    for (long r = 0; r < n; ++r)
      for (long k = 0; k < n; ++k)
        for (long c = 0; c < n; ++c) {
          const double term = a[static_cast<std::size_t>(r * n + k)] * b[static_cast<std::size_t>(k * n + c)];
          expected.value[static_cast<std::size_t>(r * n + c)] += term;
          expected.bound[static_cast<std::size_t>(r * n + c)] += std::fabs(term);
        }
    for (std::size_t i = 0; i < count; ++i) {
      if (f.depth == OX_F32) {
        expected.bound[i] *= static_cast<double>(n) * kEps;
      } else {
        expected.bound[i] = 0;
        expected.value[i] = wrapped(f.depth, expected.value[i]);
      }
    }
    return expected;
  });
}

void contend_rival(const std::string& table, const std::string& row, const std::string& column, const Answer& answer,
                   const Factors& f, Product product) {
  if (product) contend(table, row, column, answer, [=] { product(f.a, f.b, f.dst, f.n); });
}

void contend_ox(const std::string& table, const std::string& row, const Answer& answer, const Factors& f,
                unsigned flags, int width_bytes = 0) {
  const ox_mat_t a = square(f.depth, f.n, f.a), b = square(f.depth, f.n, f.b), dst = square(f.depth, f.n, f.dst);
  contend(table, row, "ox", answer, [=] { ox_mat_mul(&a, &b, const_cast<ox_mat_t*>(&dst), flags); }, width_bytes);
}

// Where ox_mat_create puts the elements: at 8 beyond a multiple of 16 bytes.
void contend_ox_created(const std::string& table, const std::string& row, const std::shared_ptr<Reference>& reference,
                        const Factors& f, unsigned flags) {
  const auto n = static_cast<int32_t>(f.n);
  const auto count = static_cast<std::size_t>(f.n * f.n);
  ox_mat_t* created[3];
  for (ox_mat_t*& m : created)
    if (!(m = ox_mat_create(n, n, OX_TYPE(f.depth, 1)))) std::abort();
  ox_mat_t *a = created[0], *b = created[1], *dst = created[2];
  for (std::size_t i = 0; i < count; ++i) {
    set_scalar(f.depth, a->data, i, scalar(f.depth, f.a, i));
    set_scalar(f.depth, b->data, i, scalar(f.depth, f.b, i));
  }
  contend(table, row, "ox created", array_answer(f.depth, dst->data, count, reference),
          [=] { ox_mat_mul(a, b, dst, flags); });
}

void contend_openblas(const std::string& table, const std::string& row, const Answer& answer, const Factors& f,
                      unsigned flags) {
  constexpr int kRowMajor = 101, kAsIs = 111, kTransposed = 112;
  const int transpose_a = flags & OX_MAT_TRANSPOSE_A ? kTransposed : kAsIs;
  const int transpose_b = flags & OX_MAT_TRANSPOSE_B ? kTransposed : kAsIs;
  const int n = static_cast<int>(f.n);
  for (const OpenBlas& blas : openblas())
    contend(table, row, blas.column, answer, [=, sgemm = blas.sgemm] {
      sgemm(kRowMajor, transpose_a, transpose_b, n, n, n, 1.0f, static_cast<const float*>(f.a), n,
            static_cast<const float*>(f.b), n, 0.0f, static_cast<float*>(f.dst), n);
    });
}

// libxsmm writes code for one size and form beforehand: what is timed is that code alone. It thinks in columns, so it
// is asked for the transposed equation with the factors exchanged. It has no code for a * b^T.
void contend_libxsmm(const std::string& table, const std::string& row, const Answer& answer, const Factors& f,
                     unsigned flags) {
  if (flags & OX_MAT_TRANSPOSE_B) return;
  const int n = static_cast<int>(f.n), no_prefetch = LIBXSMM_GEMM_PREFETCH_NONE;
  const int form = LIBXSMM_GEMM_FLAG_BETA_0 | (flags & OX_MAT_TRANSPOSE_A ? LIBXSMM_GEMM_FLAG_TRANS_B : 0);
  const float one = 1, zero = 0;
  const libxsmm_smmfunction kernel =
      libxsmm_smmdispatch(n, n, n, &n, &n, &n, &one, &zero, &form, &no_prefetch);
  if (!kernel) {
    std::fprintf(stderr, "libxsmm has no kernel for %s %s\n", table.c_str(), row.c_str());
    return;
  }
  contend(table, row, "libxsmm", answer, [=] {
    kernel(static_cast<const float*>(f.b), static_cast<const float*>(f.a), static_cast<float*>(f.dst));
  });
}

void register_form(const std::string& table, unsigned flags, std::initializer_list<long> sizes,
                   Product Author::*form, bool with_created) {
  for (const long n : sizes) {
    const Factors f = new_factors(OX_F32, n);
    const auto reference = product_reference(f, flags);
    const Answer answer = array_answer(OX_F32, f.dst, static_cast<std::size_t>(n * n), reference);
    const std::string row = std::to_string(n);
    contend_ox(table, row, answer, f, flags);
    if (with_created) contend_ox_created(table, row, reference, f, flags);
    for (const char* name : {"sse2", "avx2", "native"})
      if (const Rivals* rival = rivals(name))
        contend_rival(table, row, std::string("eigen ") + name, answer, f,
                      form ? rival->eigen.*form : rival->eigen.product[OX_F32]);
    contend_openblas(table, row, answer, f, flags);
    contend_libxsmm(table, row, answer, f, flags);
    const Author& plain = rivals("native")->plain;
    contend_rival(table, row, "plain native", answer, f, form ? plain.*form : plain.product[OX_F32]);
  }
}

constexpr struct {
  int bytes;
  const char* name;
} kWidths[] = {{16, "sse2"}, {32, "avx2"}, {64, "avx512"}};

// As many multiplications and additions as the product has.
void contend_peak(const std::string& table, const std::string& row, const char* column,
                  double (*peak)(long terms, long* lanes), long n) {
  const auto sum = static_cast<double*>(new_array(OX_F64, 2));
  const auto ones = std::make_shared<Reference>([sum] { return Expected{{sum[1]}, {}}; });
  contend(table, row, column, array_answer(OX_F64, sum, 2, ones), [=] {
    long lanes;
    sum[0] = peak(n * n * n, &lanes);
    sum[1] = static_cast<double>(lanes);  // every lane ends as it starts, at exactly 1
  });
}

void register_integers() {
  constexpr struct {
    unsigned depth;
    const char* name;
  } kDepths[] = {{OX_S8, "s8"}, {OX_S16, "s16"}, {OX_S32, "s32"}};
  for (const auto& depth : kDepths)
    for (const long n : {64L, 256L}) {
      const Factors f = new_factors(depth.depth, n);
      const auto reference = product_reference(f, 0);
      const Answer answer = array_answer(depth.depth, f.dst, static_cast<std::size_t>(n * n), reference);
      for (const auto& width : kWidths) {
        const Rivals* rival = rivals(width.name);
        if (!rival || !has_width(width.bytes)) continue;
        const std::string row =
            std::string(depth.name) + " " + std::to_string(n) + ", " + std::to_string(width.bytes) + " bytes";
        contend_ox("integers", row, answer, f, 0, width.bytes);
        contend_rival("integers", row, "eigen", answer, f, rival->eigen.product[depth.depth]);
        contend_rival("integers", row, "plain", answer, f, rival->plain.product[depth.depth]);
        contend_peak("integers", row, "peak", rival->peak[depth.depth], n);
        if (rival->loop[depth.depth]) contend_peak("integers", row, "loop", rival->loop[depth.depth], n);
      }
    }
}

void register_peak() {
  for (const auto& width : kWidths) {
    const Rivals* rival = rivals(width.name);
    if (!rival || !has_width(width.bytes)) continue;
    for (const long n : {64L, 128L, 256L, 512L}) {
      const std::string row = std::to_string(n) + ", " + std::to_string(width.bytes) + " bytes";
      const Factors f = new_factors(OX_F32, n);
      const auto count = static_cast<std::size_t>(n * n);
      contend_ox("peak", row, array_answer(OX_F32, f.dst, count, product_reference(f, 0)), f, 0, width.bytes);
      contend_peak("peak", row, "peak", rival->peak[OX_F32], n);
    }
  }
}

}  // namespace

void register_contests() {
  register_form("a*b", 0, {1, 2, 3, 4, 6, 8, 12, 16, 24, 32, 40, 64, 128, 256, 512}, nullptr, true);
  register_form("a*bT", OX_MAT_TRANSPOSE_B, {4, 8, 16, 32, 64}, &Author::product_tb, false);
  register_form("aT*b", OX_MAT_TRANSPOSE_A, {4, 8, 16, 32, 64}, &Author::product_ta, false);
  register_integers();
  register_peak();
  for (const OpenBlas& blas : openblas()) benchmark::AddCustomContext(blas.column, "one thread");
  benchmark::AddCustomContext("libxsmm", libxsmm_get_target_arch());
}

}  // namespace bench
