// SPDX-License-Identifier: MIT
#include "support.h"

namespace {

using support::Data;
using support::Filled;
using support::header;
using support::Placement;
using support::plain;
using support::same_bytes;
using support::same_values;

// The four products that start from a third matrix.
enum class Form { kAdd, kAddTransposed, kSub, kSubFromIdentity };
const Form kForms[] = {Form::kAdd, Form::kAddTransposed, Form::kSub, Form::kSubFromIdentity};

std::uint32_t flags_of(Form form) {
  if (form == Form::kAddTransposed) return OX_MAT_TRANSPOSE_B;
  return form == Form::kSubFromIdentity ? OX_MAT_IDENTITY_C : 0;
}

void library(Form form, const ox_mat_t* a, const ox_mat_t* b, const ox_mat_t* c, ox_mat_t* dst,
             std::uint32_t flags) {
  if (form == Form::kAdd || form == Form::kAddTransposed)
    ox_mat_muladd(a, b, c, dst, flags);
  else
    ox_mat_submul(c, a, b, dst, flags);
}

// c_data tells apart the case in which dst is c, and then both are in the copy that the reference may write.
void expect(Form form, const ox_mat_t& a, const ox_mat_t& b, const ox_mat_t* c, void* c_data, const ox_mat_t& dst,
            void* dst_data) {
  const std::uint32_t flags = flags_of(form);
  if (form == Form::kAdd || form == Form::kAddTransposed) {
    reference::muladd(plain(a), plain(b), plain(*c, c_data), plain(dst, dst_data), flags);
  } else if (c == nullptr) {
    reference::submul(nullptr, plain(a), plain(b), plain(dst, dst_data), flags);
  } else {
    const reference::Matrix minuend = plain(*c, c_data);
    reference::submul(&minuend, plain(a), plain(b), plain(dst, dst_data), flags);
  }
}

template <class D>
class Product {
 public:
  using T = typename D::Scalar;

  Product(support::Random& random, std::int32_t most)
      : random_(random),
        left_(bytes(most, most)),
        right_(bytes(most, most)),
        third_(bytes(most, most)),
        to_(bytes(most, most)) {}

  void lay(std::int32_t m, std::int32_t n, std::int32_t k, Form form) {
    m_ = m, n_ = n, k_ = k, form_ = form;
    const std::uint32_t type = support::with_high_bits(random_, D::kType);
    const bool b_transposed = form == Form::kAddTransposed;
    a = header(type, m, k, left_.place(bytes(m, k), anywhere()));
    b = header(type, b_transposed ? n : k, b_transposed ? k : n, right_.place(bytes(k, n), anywhere()));
    c = header(type, m, n, third_.place(bytes(m, n), anywhere()));
    dst = header(type, m, n, to_.place(bytes(m, n), anywhere()));
    // No row may be looked for by its step.
    a.step = random_.between(-1000, 1000);
    b.step = random_.between(-1000, 1000);
    c.step = random_.between(-1000, 1000);
    dst.step = random_.between(-1000, 1000);
    support::fill(random_, D::kType, elements(dst), count(m, n), Data::kHostile);
  }

  void fill(Data kind) {
    support::fill(random_, D::kType, elements(a), count(m_, k_), kind);
    support::fill(random_, D::kType, elements(b), count(k_, n_), kind);
    support::fill(random_, D::kType, elements(c), count(m_, n_), kind);
  }

  // With each kind of third matrix: one of its own, the destination itself, and for the identity also none.
  testing::AssertionResult agrees() {
    const testing::AssertionResult apart = agrees_with(&c, c.data);
    if (!apart) return apart;
    if (form_ == Form::kSubFromIdentity) {
      testing::AssertionResult none = agrees_with(nullptr, nullptr);
      if (!none) return none << " (null minuend)";
    }
    std::memcpy(dst.data, c.data, bytes(m_, n_));
    testing::AssertionResult in_place = agrees_with(&dst, dst.data);
    if (!in_place) return in_place << " (in place)";
    return testing::AssertionSuccess();
  }

  testing::AssertionResult agrees(std::int32_t m, std::int32_t n, std::int32_t k, Form form) {
    lay(m, n, k, form);
    fill(support::any_kind(random_));
    return agrees();
  }

  static unsigned char* elements(const ox_mat_t& m) { return static_cast<unsigned char*>(m.data); }
  static std::size_t count(std::int32_t rows, std::int32_t cols) {
    return static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols);
  }
  static std::size_t bytes(std::int32_t rows, std::int32_t cols) { return count(rows, cols) * sizeof(T); }

  ox_mat_t a{}, b{}, c{}, dst{};

 private:
  testing::AssertionResult agrees_with(ox_mat_t* addend, void* addend_data) {
    support::Twin expected(dst.data, bytes(m_, n_));
    const support::Unchanged a_kept(a.data, bytes(m_, k_)), b_kept(b.data, bytes(k_, n_));
    const support::Unchanged c_kept(c.data, bytes(m_, n_));
    void* const expected_addend = addend == &dst ? expected.at(dst.data) : addend_data;
    library(form_, &a, &b, addend, &dst, flags_of(form_));
    expect(form_, a, b, addend, expected_addend, dst, expected.at(dst.data));
    const testing::AssertionResult values = same_values(D::kType, dst.data, expected.data(), count(m_, n_));
    const testing::AssertionResult beside = to_.intact();
    if (values && beside && a_kept.check() && b_kept.check() && c_kept.check()) return testing::AssertionSuccess();
    return testing::AssertionFailure() << values.message() << beside.message() << a_kept.check().message()
                                       << b_kept.check().message() << c_kept.check().message() << random_ << "m "
                                       << m_ << ", n " << n_ << ", k " << k_ << ", form "
                                       << static_cast<int>(form_);
  }

  Placement anywhere() { return support::any_placement(random_, D::kType); }

  support::Random& random_;
  support::GuardedPages left_, right_, third_, to_;
  std::int32_t m_ = 0, n_ = 0, k_ = 0;
  Form form_ = Form::kAdd;
};

template <class D>
class MulAddAndSubMulOfEveryDepth : public testing::Test {};
TYPED_TEST_SUITE(MulAddAndSubMulOfEveryDepth, support::EveryDepth, support::DepthName);

TYPED_TEST(MulAddAndSubMulOfEveryDepth, MatchPlainLoopForAllSmallShapes) {
  support::Random random(3201);
  Product<TypeParam> product(random, 16);
  for (const Form form : kForms)
    for (std::int32_t m = 1; m <= 9; ++m)
      for (std::int32_t n = 1; n <= 9; ++n)
        for (std::int32_t k = 0; k <= 9; ++k) ASSERT_TRUE(product.agrees(m, n, k, form));
}

TYPED_TEST(MulAddAndSubMulOfEveryDepth, MatchPlainLoopAroundEveryLaneBoundary) {
  support::Random random(3202);
  Product<TypeParam> product(random, 160);
  for (const Form form : kForms) {
    for (std::int32_t n = 1; n <= support::last_lane_boundary<TypeParam>(); ++n) {
      for (int i = 0; i < 1 + support::scaled(4); ++i) {
        ASSERT_TRUE(product.agrees(random.between(1, 9), n, random.between(1, 9), form));
        ASSERT_TRUE(product.agrees(random.between(1, 9), random.between(1, 9), n, form));
        ASSERT_TRUE(product.agrees(n, random.between(1, 9), random.between(1, 9), form));
      }
    }
  }
}

TYPED_TEST(MulAddAndSubMulOfEveryDepth, MatchPlainLoopForLargerShapes) {
  support::Random random(3203);
  Product<TypeParam> product(random, 160);
  for (const Form form : kForms) {
    for (int i = 0; i < support::scaled(32); ++i)
      ASSERT_TRUE(product.agrees(random.between(1, 70), random.between(1, 70), random.between(1, 70), form));
    for (int i = 0; i < support::scaled(8); ++i)
      ASSERT_TRUE(product.agrees(random.between(64, 130), random.between(64, 130), random.between(64, 130), form));
    for (int i = 0; i < support::scaled(32); ++i) {
      ASSERT_TRUE(product.agrees(random.between(1, 5), random.between(1, 5), random.between(200, 1500), form));
      ASSERT_TRUE(product.agrees(random.between(1, 5), random.between(200, 1500), random.between(1, 5), form));
    }
  }
}

// What goes through a panel on the stack does so 14 KiB at a time: rows of one scalar, or of vectors of all widths.
TYPED_TEST(MulAddAndSubMulOfEveryDepth, MatchPlainLoopAroundEveryPanelsEnd) {
  support::Random random(3210);
  Product<TypeParam> product(random, 160);
  for (const Form form : kForms)
    for (const std::int32_t row_bytes : {8, 16, 32, 64, 128, 256})
      for (std::int32_t past = -1; past <= 1; ++past)
        for (const std::int32_t n : {1, 2, 3, 5})
          ASSERT_TRUE(product.agrees(3, n, 14 * 1024 / row_bytes + past, form));
  // Rows of one or two whole vectors have a panel of their own, of 64 terms.
  constexpr std::int32_t kSize = sizeof(typename TypeParam::Scalar);
  for (const Form form : kForms)
    for (const std::int32_t row_bytes : {16, 32, 64, 128})
      for (std::int32_t k = 63; k <= 66; ++k)
        ASSERT_TRUE(product.agrees(random.between(1, 40), row_bytes / kSize, k, form));
}

// Factors of four rows may be spread beforehand, 14 KiB of vectors at a time.
TYPED_TEST(MulAddAndSubMulOfEveryDepth, MatchPlainLoopWhereFactorsAreSpread) {
  support::Random random(3212);
  Product<TypeParam> product(random, 180);
  for (const Form form : kForms)
    for (const std::int32_t n : {16, 20, 32, 40, 48, 50})
      for (const std::int32_t k : {17, 224, 225, 449}) ASSERT_TRUE(product.agrees(random.between(3, 13), n, k, form));
}

TYPED_TEST(MulAddAndSubMulOfEveryDepth, MatchPlainLoopWhereTermsArePaired) {
  support::Random random(3213);
  Product<TypeParam> product(random, 200);
  for (const Form form : kForms)
    for (const std::int32_t k : {33, 48, 49, 105, 106})
      for (const std::int32_t n : {18, 64, 70, 129, 160}) ASSERT_TRUE(product.agrees(random.between(16, 23), n, k, form));
}

TYPED_TEST(MulAddAndSubMulOfEveryDepth, TakeOneMatrixForBothFactors) {
  support::Random random(3204);
  Product<TypeParam> product(random, 40);
  for (std::int32_t n = 1; n <= 33; ++n) {
    for (const Form form : kForms) {
      product.lay(n, n, n, form);
      product.fill(support::any_kind(random));
      product.b = product.a;
      ASSERT_TRUE(product.agrees());
    }
  }
}

TYPED_TEST(MulAddAndSubMulOfEveryDepth, GiveTheThirdMatrixWithoutInnerDimension) {
  using T = typename TypeParam::Scalar;
  support::Random random(3205);
  for (const Form form : kForms) {
    for (const std::int32_t k : {0, -1, -7}) {
      for (std::int32_t m = 1; m <= 5; ++m) {
        for (std::int32_t n = 1; n <= 20; ++n) {
          // Factors of no size are not read, whatever their data.
          const ox_mat_t a = header(TypeParam::kType, m, k, nullptr);
          const ox_mat_t b = header(TypeParam::kType, form == Form::kAddTransposed ? n : k,
                                    form == Form::kAddTransposed ? k : n, nullptr);
          const auto count = static_cast<std::size_t>(m * n);
          std::vector<T> third(count + 1), elements(count + 1, T{9});
          support::fill(random, TypeParam::kType, third.data(), count + 1, Data::kHostile);
          std::vector<T> expected = elements;
          if (form == Form::kSubFromIdentity) {
            for (std::size_t i = 0; i < count; ++i)
              expected[i] = i / static_cast<std::size_t>(n) == i % static_cast<std::size_t>(n) ? T{1} : T{0};
          } else {
            std::memcpy(expected.data(), third.data(), count * sizeof(T));
          }
          const ox_mat_t c = header(TypeParam::kType, m, n, third.data());
          ox_mat_t dst = header(TypeParam::kType, m, n, elements.data());
          library(form, &a, &b, &c, &dst, flags_of(form));
          // As bytes: copied NaNs keep theirs.
          ASSERT_TRUE(same_bytes(elements.data(), expected.data(), (count + 1) * sizeof(T)))
              << random << m << 'x' << n << 'x' << k << " form " << static_cast<int>(form);
        }
      }
    }
  }
}

TYPED_TEST(MulAddAndSubMulOfEveryDepth, LeaveDstUntouchedWithoutRowsOrColumns) {
  unsigned char factors[256] = {1, 2, 3}, third[256] = {4, 5, 6};
  unsigned char target[256];
  std::memset(target, 9, sizeof target);
  const support::Unchanged untouched(target, sizeof target);
  for (const Form form : {Form::kAdd, Form::kAddTransposed, Form::kSub}) {
    for (const std::int32_t k : {-1, 0, 1, 2}) {
      const std::int32_t shapes[][2] = {{0, 3}, {3, 0}, {0, 0}, {-1, 3}, {3, -1}, {-2, -2}};
      for (const auto& shape : shapes) {
        const std::int32_t m = shape[0], n = shape[1];
        const ox_mat_t a = header(TypeParam::kType, m, k, factors);
        const ox_mat_t b = header(TypeParam::kType, form == Form::kAddTransposed ? n : k,
                                  form == Form::kAddTransposed ? k : n, factors);
        const ox_mat_t c = header(TypeParam::kType, m, n, third);
        ox_mat_t dst = header(TypeParam::kType, m, n, target);
        library(form, &a, &b, &c, &dst, flags_of(form));
        EXPECT_TRUE(untouched.check()) << m << 'x' << n << 'x' << k << " form " << static_cast<int>(form);
        // Nor is anything read: here is nothing to be read.
        const ox_mat_t no_a = header(TypeParam::kType, a.rows, a.cols, nullptr);
        const ox_mat_t no_b = header(TypeParam::kType, b.rows, b.cols, nullptr);
        const ox_mat_t no_c = header(TypeParam::kType, m, n, nullptr);
        ox_mat_t no_dst = header(TypeParam::kType, m, n, nullptr);
        library(form, &no_a, &no_b, &no_c, &no_dst, flags_of(form));
      }
    }
  }
}

// Fixed, though nobody should make use of it: the identity is laid before the sizes are looked at.
TYPED_TEST(MulAddAndSubMulOfEveryDepth, SubMulLaysTheIdentityAtAnEmptyDst) {
  using T = typename TypeParam::Scalar;
  const struct {
    std::int32_t m, n;
    std::vector<T> expected;
  } cases[] = {{0, 3, {T{1}, T{0}, T{0}, T{0}, T{9}, T{9}}},
               {3, 0, {T{1}, T{9}, T{9}, T{9}, T{9}, T{9}}},
               {0, 0, {T{1}, T{9}, T{9}, T{9}, T{9}, T{9}}}};
  for (const auto& one : cases) {
    const std::vector<T> factors(4, T{5});
    const ox_mat_t a = header(TypeParam::kType, one.m, 1, const_cast<T*>(factors.data()));
    const ox_mat_t b = header(TypeParam::kType, 1, one.n, const_cast<T*>(factors.data()));
    std::vector<T> elements(6, T{9});
    ox_mat_t dst = header(TypeParam::kType, one.m, one.n, elements.data());
    ox_mat_submul(nullptr, &a, &b, &dst, OX_MAT_IDENTITY_C);
    EXPECT_EQ(elements, one.expected) << one.m << 'x' << one.n;
  }
}

// ------------------------------------------------------------------------------------------- refusals

class MulAddAndSubMulRefusal : public testing::Test {
 protected:
  void refused(Form form, const ox_mat_t& a, const ox_mat_t& b, const ox_mat_t* c, const ox_mat_t& dst,
               const char* why) {
    std::memset(target_, 9, sizeof target_);
    ox_mat_t destination = dst;
    library(form, &a, &b, c, &destination, flags_of(form));
    unsigned char nines[sizeof target_];
    std::memset(nines, 9, sizeof nines);
    EXPECT_TRUE(same_bytes(target_, nines, sizeof nines)) << why << ", form " << static_cast<int>(form);
  }

  void accepted(Form form, const ox_mat_t& a, const ox_mat_t& b, const ox_mat_t* c, const ox_mat_t& dst) {
    std::memset(target_, 9, sizeof target_);
    ox_mat_t destination = dst;
    library(form, &a, &b, c, &destination, flags_of(form));
    unsigned char nines[sizeof target_];
    std::memset(nines, 9, sizeof nines);
    EXPECT_FALSE(same_bytes(target_, nines, sizeof nines)) << "form " << static_cast<int>(form);
  }

  alignas(8) unsigned char left_[2048] = {};
  alignas(8) unsigned char right_[2048] = {};
  alignas(8) unsigned char third_[2048] = {};
  alignas(8) unsigned char target_[2048] = {};
};

TEST_F(MulAddAndSubMulRefusal, OfEveryShapeThatDoesNotFit) {
  for (const Form form : kForms) {
    const bool b_transposed = form == Form::kAddTransposed;
    const ox_mat_t a = header(OX_F32, 2, 4, left_);
    const ox_mat_t b = header(OX_F32, b_transposed ? 3 : 4, b_transposed ? 4 : 3, right_);
    const ox_mat_t c = header(OX_F32, 2, 3, third_);
    const ox_mat_t dst = header(OX_F32, 2, 3, target_);
    accepted(form, a, b, &c, dst);
    for (const int by : {-1, 1}) {
      ox_mat_t other = a;
      other.rows += by;
      refused(form, other, b, &c, dst, "a has other rows");
      other = a;
      other.cols += by;
      refused(form, other, b, &c, dst, "a has other cols");
      other = b;
      other.rows += by;
      refused(form, a, other, &c, dst, "b has other rows");
      other = b;
      other.cols += by;
      refused(form, a, other, &c, dst, "b has other cols");
      other = dst;
      other.rows += by;
      refused(form, a, b, &c, other, "dst has other rows");
      other = dst;
      other.cols += by;
      refused(form, a, b, &c, other, "dst has other cols");
    }
  }
}

TEST_F(MulAddAndSubMulRefusal, OfAnAddendOrMinuendOfAnotherShapeAlone) {
  for (const Form form : {Form::kAdd, Form::kAddTransposed, Form::kSub}) {
    const bool b_transposed = form == Form::kAddTransposed;
    const ox_mat_t a = header(OX_F32, 2, 4, left_);
    const ox_mat_t b = header(OX_F32, b_transposed ? 3 : 4, b_transposed ? 4 : 3, right_);
    const ox_mat_t dst = header(OX_F32, 2, 3, target_);
    const std::int32_t shapes[][2] = {{3, 3}, {1, 3}, {2, 4}, {2, 2}, {3, 2}, {6, 1}, {1, 6}};
    for (const auto& shape : shapes) {
      const ox_mat_t c = header(OX_F32, shape[0], shape[1], third_);
      refused(form, a, b, &c, dst, "c has another shape");
    }
  }
}

TEST_F(MulAddAndSubMulRefusal, OfTypeWordsThatDiffer) {
  const std::uint32_t others[] = {
      OX_S32, OX_F64, OX_U8, OX_F32 | 0x100u, OX_F32 | 0x80000000u, OX_TYPE(OX_F32, 2), OX_TYPE(OX_F32, 32)};
  for (const Form form : kForms) {
    for (const std::uint32_t other : others) {
      const ox_mat_t a = header(OX_F32, 2, 2, left_), b = header(OX_F32, 2, 2, right_);
      const ox_mat_t c = header(OX_F32, 2, 2, third_), dst = header(OX_F32, 2, 2, target_);
      const ox_mat_t a2 = header(other, 2, 2, left_), b2 = header(other, 2, 2, right_);
      const ox_mat_t c2 = header(other, 2, 2, third_), dst2 = header(other, 2, 2, target_);
      refused(form, a2, b, &c, dst, "a differs");
      refused(form, a, b2, &c, dst, "b differs");
      refused(form, a, b, &c2, dst, "c differs");
      refused(form, a, b, &c, dst2, "dst differs");
      refused(form, a2, b2, &c2, dst, "dst differs from all");
      refused(form, a2, b2, &c, dst2, "c differs from all");
    }
  }
}

TEST_F(MulAddAndSubMulRefusal, OfSeveralChannels) {
  for (const Form form : kForms) {
    for (const int channels : {2, 3, 32}) {
      const std::uint32_t type = OX_TYPE(OX_F32, channels);
      const ox_mat_t a = header(type, 2, 2, left_), b = header(type, 2, 2, right_);
      const ox_mat_t c = header(type, 2, 2, third_), dst = header(type, 2, 2, target_);
      refused(form, a, b, &c, dst, "several channels");
    }
  }
}

// ---------------------------------------------------------------------------------------------- by name

TEST(MatMulAdd, HasNoFormWithATransposed) {
  support::Random random(3206);
  Product<support::F32> product(random, 16);
  const struct {
    std::uint32_t given;
    Form meant;
  } flags[] = {{1, Form::kAdd},
               {3, Form::kAddTransposed},
               {16, Form::kAdd},
               {4, Form::kAdd},
               {8, Form::kAdd},
               {0xFFFFFFFDu, Form::kAdd},
               {0xFFFFFFFFu, Form::kAddTransposed}};
  for (const auto& flag : flags) {
    product.lay(3, 4, 5, flag.meant);
    product.fill(Data::kTame);
    support::Twin expected(product.dst.data, 12 * sizeof(float));
    expect(flag.meant, product.a, product.b, &product.c, product.c.data, product.dst,
           expected.at(product.dst.data));
    library(flag.meant, &product.a, &product.b, &product.c, &product.dst, flag.given);
    EXPECT_TRUE(same_values(OX_F32, product.dst.data, expected.data(), 12)) << "flags " << flag.given;
  }
}

TEST(MatSubMul, HasNoTransposedForms) {
  support::Random random(3207);
  Product<support::F32> product(random, 16);
  const struct {
    std::uint32_t given;
    Form meant;
  } flags[] = {{1, Form::kSub},
               {2, Form::kSub},
               {3, Form::kSub},
               {0xFFFFFFEFu, Form::kSub},
               {17, Form::kSubFromIdentity},
               {18, Form::kSubFromIdentity},
               {0xFFFFFFFFu, Form::kSubFromIdentity}};
  for (const auto& flag : flags) {
    product.lay(3, 4, 5, flag.meant);
    product.fill(Data::kTame);
    support::Twin expected(product.dst.data, 12 * sizeof(float));
    expect(flag.meant, product.a, product.b, &product.c, product.c.data, product.dst,
           expected.at(product.dst.data));
    library(flag.meant, &product.a, &product.b, &product.c, &product.dst, flag.given);
    EXPECT_TRUE(same_values(OX_F32, product.dst.data, expected.data(), 12)) << "flags " << flag.given;
  }
}

TEST(MatSubMul, SubtractsFromTheIdentityWhateverTheShapeOfTheMinuend) {
  const Filled<float> a(OX_F32, 2, 3, {1, 2, 3, 4, 5, 6});
  const Filled<float> b(OX_F32, 3, 2, {7, 8, 9, 10, 11, 12});
  const std::vector<float> expected = {-57, -64, -139, -153};
  Filled<float> dst(OX_F32, 2, 2, {9, 9, 9, 9});
  ox_mat_submul(nullptr, &a.m, &b.m, &dst.m, OX_MAT_IDENTITY_C);
  EXPECT_EQ(dst.values, expected);
  const std::int32_t shapes[][2] = {{2, 2}, {1, 1}, {7, 3}, {0, 0}, {-1, 5}};
  for (const auto& shape : shapes) {
    dst.values.assign(4, 9);
    dst.m.data = dst.values.data();
    const ox_mat_t c = header(OX_F32, shape[0], shape[1], nullptr);  // not read either
    ox_mat_submul(&c, &a.m, &b.m, &dst.m, OX_MAT_IDENTITY_C);
    EXPECT_EQ(dst.values, expected) << shape[0] << 'x' << shape[1];
  }
}

TEST(MatSubMul, RefusesAMinuendOfAnotherTypeEvenWhenTheIdentityIsAskedFor) {
  const Filled<float> a(OX_F32, 1, 1, {2});
  const Filled<float> b(OX_F32, 1, 1, {3});
  for (const std::uint32_t type : {OX_F64, OX_S32, OX_F32 | 0x400u, OX_TYPE(OX_F32, 2)}) {
    Filled<float> dst(OX_F32, 1, 1, {9});
    const ox_mat_t c = header(type, 1, 1, nullptr);
    ox_mat_submul(&c, &a.m, &b.m, &dst.m, OX_MAT_IDENTITY_C);
    EXPECT_EQ(dst.values[0], 9.0f) << type;
  }
}

TEST(MatSubMul, TakesARectangularIdentity) {
  const Filled<double> a(OX_F64, 2, 1, {1, 2});
  const Filled<double> b(OX_F64, 1, 3, {10, 20, 30});
  Filled<double> dst(OX_F64, 2, 3, std::vector<double>(6, 9));
  ox_mat_submul(nullptr, &a.m, &b.m, &dst.m, OX_MAT_IDENTITY_C);
  EXPECT_EQ(dst.values, (std::vector<double>{-9, -20, -30, -20, -39, -60}));
}

TEST(MatMulAdd, AddsInPlaceAndSubMulSubtractsInPlace) {
  const Filled<std::int32_t> a(OX_S32, 2, 2, {1, 2, 3, 4});
  const Filled<std::int32_t> b(OX_S32, 2, 2, {5, 6, 7, 8});
  Filled<std::int32_t> c(OX_S32, 2, 2, {100, 200, 300, 400});
  ox_mat_muladd(&a.m, &b.m, &c.m, &c.m, 0);
  EXPECT_EQ(c.values, (std::vector<std::int32_t>{119, 222, 343, 450}));
  ox_mat_submul(&c.m, &a.m, &b.m, &c.m, 0);
  EXPECT_EQ(c.values, (std::vector<std::int32_t>{100, 200, 300, 400}));
  ox_mat_muladd(&a.m, &b.m, &c.m, &c.m, OX_MAT_TRANSPOSE_B);
  EXPECT_EQ(c.values, (std::vector<std::int32_t>{117, 223, 339, 453}));
}

TEST(MatMulAdd, WrapsAndSubMulWraps) {
  const Filled<std::uint8_t> ten(OX_U8, 1, 1, {10}), three(OX_U8, 1, 1, {3}), four(OX_U8, 1, 1, {4});
  Filled<std::uint8_t> dst(OX_U8, 1, 1, {9});
  ox_mat_submul(&ten.m, &three.m, &four.m, &dst.m, 0);
  EXPECT_EQ(dst.values[0], 254);
  const Filled<std::uint8_t> c(OX_U8, 1, 1, {250}), two(OX_U8, 1, 1, {2});
  ox_mat_muladd(&two.m, &three.m, &c.m, &dst.m, 0);
  EXPECT_EQ(dst.values[0], 0);
}

TEST(MatMulAdd, StartsFromTheAddendAndAddsInRisingOrder) {
  // Beside 2^24 each 1 is lost; the ones summed first would count.
  std::vector<float> ones(40, 1.0f);
  const Filled<float> a(OX_F32, 1, 40, ones);
  const Filled<float> column(OX_F32, 40, 1, ones), row(OX_F32, 1, 40, ones);
  const Filled<float> c(OX_F32, 1, 1, {16777216.0f});
  Filled<float> dst(OX_F32, 1, 1, {9});
  ox_mat_muladd(&a.m, &column.m, &c.m, &dst.m, 0);
  EXPECT_EQ(dst.values[0], 16777216.0f);
  dst.values[0] = 9;
  ox_mat_muladd(&a.m, &row.m, &c.m, &dst.m, OX_MAT_TRANSPOSE_B);
  EXPECT_EQ(dst.values[0], 16777216.0f);
  // From 2^25 each single 1 is too little to take anything away; all of them together are not.
  const Filled<float> more(OX_F32, 1, 1, {33554432.0f});
  ox_mat_submul(&more.m, &a.m, &column.m, &dst.m, 0);
  EXPECT_EQ(dst.values[0], 33554432.0f);
}

TEST(MatMulAdd, RoundsEachProductBeforeItIsAddedAndSubMulBeforeItIsSubtracted) {
  // 4097 * 4097 = 16785409 is rounded to 16785408; a fused operation would leave 1.
  const Filled<float> a(OX_F32, 1, 1, {4097}), minus_a(OX_F32, 1, 1, {-4097});
  Filled<float> c(OX_F32, 1, 1, {16785408.0f});
  Filled<float> dst(OX_F32, 1, 1, {9});
  ox_mat_submul(&c.m, &a.m, &a.m, &dst.m, 0);
  EXPECT_EQ(dst.values[0], 0.0f);
  for (const std::uint32_t flags : {0u, OX_MAT_TRANSPOSE_B}) {
    dst.values[0] = 9;
    ox_mat_muladd(&minus_a.m, &a.m, &c.m, &dst.m, flags);
    EXPECT_EQ(dst.values[0], 0.0f) << flags;
  }
}

TEST(MatMulAddAndSubMul, CopyTheThirdMatrixAsPackedWhateverTheSteps) {
  Filled<float> a(OX_F32, 2, 1, {1, 2}), b(OX_F32, 1, 2, {10, 20});
  Filled<float> c(OX_F32, 2, 2, {1, 2, 3, 4, 50, 60});
  Filled<float> dst(OX_F32, 2, 2, {9, 9, 9, 9, 9, 9});
  b.m.step = 4000;
  c.m.step = 12;
  dst.m.step = 12;
  ox_mat_muladd(&a.m, &b.m, &c.m, &dst.m, 0);
  EXPECT_EQ(dst.values, (std::vector<float>{11, 22, 23, 44, 9, 9}));
  ox_mat_submul(&c.m, &a.m, &b.m, &dst.m, 0);
  EXPECT_EQ(dst.values, (std::vector<float>{-9, -18, -17, -36, 9, 9}));
}

// --------------------------------------------------------------------------- floats at their limits

template <class D>
class MulAddAndSubMulOfFloats : public testing::Test {};
TYPED_TEST_SUITE(MulAddAndSubMulOfFloats, support::FloatDepths, support::DepthName);

#if defined(__x86_64__)  // where there are vectors of more than 16 bytes
// So large a product alone puts panels of more than 14 KiB into the last rows of its result. Here these are the addend.
TYPED_TEST(MulAddAndSubMulOfFloats, KeepAnAddendInPlaceWhateverItsSize) {
  support::Random random(3211);
  Product<TypeParam> product(random, 700);
  for (const Form form : kForms)
    for (const std::int32_t row_bytes : {64, 256})
      ASSERT_TRUE(product.agrees(random.between(540, 600), random.between(150, 200), 14 * 1024 / row_bytes + 1, form));
}
#endif

TYPED_TEST(MulAddAndSubMulOfFloats, HonourSubnormalTermsSumsFactorsAndAddends) {
  using T = typename TypeParam::Scalar;
  support::Random random(3208);
  Product<TypeParam> product(random, 32);
  constexpr std::int32_t smallest = std::numeric_limits<T>::min_exponent - std::numeric_limits<T>::digits;
  for (const std::int32_t target : support::critical_exponents<T>()) {
    for (const Form form : kForms) {
      for (int i = 0; i < 1 + support::scaled(80); ++i) {
        const std::int32_t m = random.between(1, 9), n = random.between(1, 24), k = random.between(1, 12);
        product.lay(m, n, k, form);
        support::fill_factors_about<T>(random, TypeParam::kType, product.elements(product.a),
                                       product.elements(product.b), m, n, k,
                                       form == Form::kAddTransposed ? OX_MAT_TRANSPOSE_B : 0, target);
        const std::size_t count = product.count(m, n);
        const std::int32_t dice = random.between(0, 3);
        if (dice == 0) {
          // Nearly what the first term takes away again.
          for (std::int32_t r = 0; r < m; ++r) {
            for (std::int32_t s = 0; s < n; ++s) {
              T x, y;
              std::memcpy(&x, product.elements(product.a) + static_cast<std::size_t>(r * k) * sizeof(T), sizeof x);
              std::memcpy(&y,
                          product.elements(product.b) +
                              static_cast<std::size_t>(form == Form::kAddTransposed ? s * k : s) * sizeof(T),
                          sizeof y);
              T value = x * y;
              if (form == Form::kAdd || form == Form::kAddTransposed) value = -value;
              if (random.one_in(2)) value = std::nextafter(value, T{0});
              std::memcpy(product.elements(product.c) + static_cast<std::size_t>(r * n + s) * sizeof(T), &value,
                          sizeof value);
            }
          }
        } else if (dice == 1) {
          // All of c subnormal or a single element, though the terms may be large.
          support::fill_exponents(random, TypeParam::kType, product.elements(product.c), count, smallest,
                                  smallest + 30);
        } else {
          const std::int32_t c_exponent = std::clamp(target + random.between(-3, 3), smallest, 1 - smallest - 60);
          support::fill_exponents(random, TypeParam::kType, product.elements(product.c), count, c_exponent,
                                  c_exponent);
          if (dice == 2)
            support::store_float(random, TypeParam::kType,
                                 product.elements(product.c) + random.below(count) * sizeof(T),
                                 smallest + random.between(0, 25));
        }
        ASSERT_TRUE(product.agrees()) << "terms about 2^" << target;
      }
    }
  }
}

TYPED_TEST(MulAddAndSubMulOfFloats, SeeASingleSubnormalTermWhereverItIs) {
  using T = typename TypeParam::Scalar;
  support::Random random(3209);
  Product<TypeParam> product(random, 80);
  for (const Form form : {Form::kAdd, Form::kAddTransposed, Form::kSub}) {
    for (const std::int32_t n : support::row_lengths()) {
      for (const std::int32_t k : {1, 5, 12}) {
        const std::int32_t m = random.between(1, 9);
        for (std::int32_t line = 0; line < m + n; ++line) {
          const bool in_a = line < m;
          const std::int32_t t = 2 * random.between(0, (k - 1) / 2);
          product.lay(m, n, k, form);
          support::fill_factors_with_one_odd<T>(random, TypeParam::kType, product.elements(product.a),
                                                product.elements(product.b), m, n, k, flags_of(form), in_a,
                                                in_a ? line : line - m, t, random.one_in(2));
          std::memset(product.c.data, 0, product.bytes(m, n));
          ASSERT_TRUE(product.agrees())
              << (in_a ? "a, row " : "b, column ") << (in_a ? line : line - m) << ", term " << t;
        }
      }
    }
  }
}

TYPED_TEST(MulAddAndSubMulOfFloats, KeepASingleSubnormalAddendWhereverItIs) {
  using T = typename TypeParam::Scalar;
  constexpr std::int32_t smallest = std::numeric_limits<T>::min_exponent - 1;
  support::Random random(3210);
  Product<TypeParam> product(random, 80);
  for (const Form form : {Form::kAdd, Form::kAddTransposed, Form::kSub}) {
    for (const std::int32_t n : support::row_lengths()) {
      const std::int32_t m = random.between(1, 4), k = random.between(1, 9);
      for (std::int32_t at = 0; at < m * n; ++at) {
        product.lay(m, n, k, form);
        support::fill_exponents(random, TypeParam::kType, product.elements(product.a), product.count(m, k), 0, 2);
        support::fill_exponents(random, TypeParam::kType, product.elements(product.b), product.count(k, n), 0, 2);
        support::fill_exponents(random, TypeParam::kType, product.elements(product.c), product.count(m, n), 0, 2);
        // Zeros as its factors, so that it is not lost beside large terms.
        std::memset(product.elements(product.a) + product.bytes(at / n, k), 0, product.bytes(1, k));
        support::store_float(random, TypeParam::kType, product.elements(product.c) + product.bytes(1, at),
                             smallest - 4);
        ASSERT_TRUE(product.agrees()) << "element " << at;
      }
    }
  }
}

}  // namespace
