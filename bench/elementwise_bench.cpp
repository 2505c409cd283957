// SPDX-License-Identifier: MIT
// Add, scale, negate and set to one, and the transpose, of n x n matrices of one channel.
#include <cstdlib>
#include <cstring>

#include "contest.h"
#include "rivals/load.h"

namespace bench {
namespace {

enum Operation { kAdd, kScale, kNegate, kSetOne };
constexpr const char* kOperationNames[] = {"add", "scale", "neg", "setone"};

struct Operands {
  unsigned depth;
  long n;
  void *a, *b, *factor, *dst;
  std::size_t count() const { return static_cast<std::size_t>(n * n); }
};

Operands new_operands(unsigned depth, long n) {
  Operands o{depth, n, nullptr, nullptr, new_scalar(depth), nullptr};
  for (void** array : {&o.a, &o.b, &o.dst}) *array = new_array(depth, o.count());
  const bool has_sign = depth != OX_U8;
  fill(depth, o.a, o.count(), has_sign ? -100 : 0, 100, 1);
  fill(depth, o.b, o.count(), has_sign ? -100 : 0, 100, 2);
  set_scalar(depth, o.factor, 0, 3);
  return o;
}

// Whole numbers below 2^24: exact in every depth.
std::shared_ptr<Reference> elementwise_reference(const Operands& o, Operation operation) {
  return std::make_shared<Reference>([o, operation] {
    Expected expected{std::vector<double>(o.count()), {}};
    for (std::size_t i = 0; i < o.count(); ++i) {
      const double a = scalar(o.depth, o.a, i), b = scalar(o.depth, o.b, i), factor = scalar(o.depth, o.factor, 0);
      const double values[] = {a + b, factor * a, -a, 1};
      expected.value[i] = o.depth == OX_F32 || o.depth == OX_F64 ? values[operation]
                                                                 : wrapped(o.depth, values[operation]);
    }
    return expected;
  });
}

Elementwise routine(const Author& author, Operation operation, unsigned depth) {
  switch (operation) {
    case kAdd: return author.add[depth];
    case kScale: return author.scale[depth];
    case kNegate: return author.negate[depth];
    default: return author.set_one[depth];
  }
}

void contend_ox(const std::string& table, const std::string& row, const Answer& answer, const Operands& o,
                Operation operation) {
  const ox_mat_t a = square(o.depth, o.n, o.a), b = square(o.depth, o.n, o.b);
  ox_mat_t dst = square(o.depth, o.n, o.dst);
  const void* factor = o.factor;
  switch (operation) {
    case kAdd: return contend(table, row, "ox", answer, [=]() mutable { ox_mat_add(&a, &b, &dst); });
    case kScale: return contend(table, row, "ox", answer, [=]() mutable { ox_mat_scale(factor, &a, &dst); });
    case kNegate: return contend(table, row, "ox", answer, [=]() mutable { ox_mat_neg(&a, &dst); });
    case kSetOne: return contend(table, row, "ox", answer, [=]() mutable { ox_mat_setone(&dst); });
  }
}

// The limit of what moves each scalar once.
void contend_memcpy(const std::string& table, const std::string& row, const Operands& o) {
  const std::size_t bytes = o.count() * scalar_bytes(o.depth);
  const auto copied = std::make_shared<Reference>([o] {
    Expected expected{std::vector<double>(o.count()), {}};
    for (std::size_t i = 0; i < o.count(); ++i) expected.value[i] = scalar(o.depth, o.a, i);
    return expected;
  });
  contend(table, row, "memcpy", array_answer(o.depth, o.dst, o.count(), copied),
          [=] { std::memcpy(o.dst, o.a, bytes); });
}

void register_operation(const Operands& o, const char* depth_name, Operation operation) {
  const std::string table = "elementwise";
  const std::string row =
      std::string(kOperationNames[operation]) + " " + depth_name + ", " + std::to_string(o.n);
  const Answer answer = array_answer(o.depth, o.dst, o.count(), elementwise_reference(o, operation));
  contend_ox(table, row, answer, o, operation);
  const Rivals* native = rivals("native");
  const std::pair<const char*, const Author*> authors[] = {{"eigen native", &native->eigen},
                                                           {"plain native", &native->plain}};
  for (const auto& [column, author] : authors)
    contend(table, row, column, answer,
            [o, run = routine(*author, operation, o.depth), second = operation == kScale ? o.factor : o.b] {
              run(o.a, second, o.dst, o.n * o.n);
            });
  contend_memcpy(table, row, o);
}

void register_transpose(const Operands& o, const char* depth_name) {
  const std::string row = std::string(depth_name) + ", " + std::to_string(o.n);
  const auto reference = std::make_shared<Reference>([o] {
    Expected expected{std::vector<double>(o.count()), {}};
    const auto n = static_cast<std::size_t>(o.n);
    for (std::size_t r = 0; r < n; ++r)
      for (std::size_t c = 0; c < n; ++c) expected.value[c * n + r] = scalar(o.depth, o.a, r * n + c);
    return expected;
  });
  const Answer answer = array_answer(o.depth, o.dst, o.count(), reference);
  const ox_mat_t src = square(o.depth, o.n, o.a);
  ox_mat_t dst = square(o.depth, o.n, o.dst);
  contend("transpose", row, "ox", answer, [=]() mutable { ox_mat_transpose(&src, &dst); });
  for (const char* name : {"sse2", "avx2", "native"})
    if (const Rivals* rival = rivals(name))
      contend("transpose", row, std::string("eigen ") + name, answer,
              [=, run = rival->eigen.transpose[o.depth]] { run(o.a, o.dst, o.n); });
  contend_memcpy("transpose", row, o);
}

}  // namespace

void register_contests() {
  constexpr struct {
    unsigned depth;
    const char* name;
  } kDepths[] = {{OX_U8, "u8"}, {OX_S16, "s16"}, {OX_S32, "s32"}, {OX_F32, "f32"}, {OX_F64, "f64"}};
  for (const auto& depth : kDepths)
    for (const long n : {16L, 64L, 256L, 1024L}) {
      const Operands o = new_operands(depth.depth, n);
      for (const Operation operation : {kAdd, kScale, kNegate, kSetOne})
        if (operation != kNegate || depth.depth != OX_U8)  // unsigned matrices are not negated
          register_operation(o, depth.name, operation);
    }
  for (const long n : {64L, 256L}) {
    register_transpose(new_operands(OX_U8, n), "u8");
    register_transpose(new_operands(OX_F32, n), "f32");
  }
}

}  // namespace bench
