// SPDX-License-Identifier: MIT
// An input is a vector width and then a programme: matrix calls on four stretches of guarded memory, in which one
// call's result may be the next one's operand, or the calls of one filter. After each call all memory is compared with
// what the reference makes of it.
#include <algorithm>
#include <string>
#include <vector>

#include "alloc_hook.h"
#include "filter_calls.h"
#include "guarded.h"
#include "input.h"
#include "ox.h"

namespace {

using fuzz::Guarded;
using fuzz::Input;

constexpr std::size_t kMostBytes = 4096;  // of an operand, but for inverses
constexpr std::int64_t kMostSteps = 8192;  // of a product
constexpr int kMostCalls = 12;

bool is_float(std::uint32_t type) { return (type & 7u) == OX_F32 || (type & 7u) == OX_F64; }

// ----------------------------------------------------------------------------------------------- data

class Data {
 public:
  explicit Data(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15u + 1) {}

  std::uint64_t bits() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return state_;
  }

  // A scalar as bits. The exponents of floats lie from `low` up, over `span` of them.
  std::uint64_t real(std::uint32_t type, std::uint64_t low, std::uint64_t span) {
    const std::uint64_t random = bits();
    const std::uint64_t exponent = low + (random >> 8 & 0xFF) % span;
    if ((type & 7u) == OX_F32) return (random >> 63) << 31 | exponent << 23 | (random >> 24 & 0x7FFFFF);
    return (random >> 63) << 63 | (exponent + 1023 - 127) << 52 | (random >> 11 & 0xFFFFFFFFFFFFF);
  }

  // Whole numbers from -8 to 7: sums of products are exact, terms cancel, and zeros turn up.
  std::uint64_t whole(std::uint32_t type) {
    const auto value = static_cast<std::int64_t>(bits() >> 20 & 15) - 8;
    std::uint64_t as_bits = 0;
    if ((type & 7u) == OX_F32) {
      const auto single = static_cast<float>(value);
      std::memcpy(&as_bits, &single, sizeof single);
    } else if ((type & 7u) == OX_F64) {
      const auto twice = static_cast<double>(value);
      std::memcpy(&as_bits, &twice, sizeof twice);
    } else {
      as_bits = static_cast<std::uint64_t>(value);
    }
    return as_bits;
  }

  // The ends of the range, and what is odd among floats: zeros, subnormals, infinities, NaNs, a signalling one too.
  std::uint64_t extreme(std::uint32_t type) {
    static const std::uint64_t singles[] = {0,          0x80000000, 0x3F800000, 0x7F7FFFFF, 0x00800000, 0x00000001,
                                            0x807FFFFF, 0x7F800000, 0xFF800000, 0x7FC12345, 0xFFC54321, 0x7F812345};
    const std::uint64_t random = bits() >> 10;
    if ((type & 7u) == OX_F32) return singles[random % 12];
    if ((type & 7u) == OX_F64) {
      const std::uint64_t single = singles[random % 12];  // the same with a longer exponent
      const std::uint64_t exponent = single >> 23 & 0xFF;
      const std::uint64_t longer = exponent == 0 ? 0 : exponent == 255 ? 2047 : exponent + 1023 - 127;
      return (single >> 31) << 63 | longer << 52 | (single & 0x7FFFFF) << 29 | (single & 1);
    }
    const std::uint64_t top = std::uint64_t{1} << (8 * reference::scalar_size(type) - 1);
    const std::uint64_t integers[] = {0, 1, ~std::uint64_t{0}, top, top - 1, top + 1};
    return integers[random % 6];
  }

 private:
  std::uint64_t state_;
};

// Low bytes come first on every target. A copy of fixed size is an instruction, not a call.
void store(unsigned char* scalar, std::uint64_t bits, std::size_t size) {
  switch (size) {
    case 1:
      std::memcpy(scalar, &bits, 1);
      break;
    case 2:
      std::memcpy(scalar, &bits, 2);
      break;
    case 4:
      std::memcpy(scalar, &bits, 4);
      break;
    default:
      std::memcpy(scalar, &bits, 8);
      break;
  }
}

void fill(Input& input, std::uint32_t type, unsigned char* data, std::size_t bytes) {
  const std::uint8_t kind = input.byte();
  if (kind % 8 == 0) return;  // what an earlier call left
  const std::size_t size = reference::scalar_size(type);
  if (kind % 8 == 1) {
    // The input's own bytes, as many as there are.
    for (std::size_t i = 0; i < std::min<std::size_t>(bytes, 32) && !input.empty(); ++i) data[i] = input.byte();
    return;
  }
  Data source(kind / 8u + 32u * input.byte());
  const bool real = is_float(type);
  for (std::size_t at = 0; at + size <= bytes; at += size) {
    std::uint64_t bits = 0;
    switch (kind % 8) {
      case 2:
        bits = source.whole(type);
        break;
      case 3:  // about one
        bits = real ? source.real(type, 121, 12) : source.bits();
        break;
      case 4:  // the same, with a few extremes
        bits = source.bits() >> 58 == 0 ? source.extreme(type) : real ? source.real(type, 121, 12) : source.bits();
        break;
      case 5:
        bits = source.bits() >> 62 == 0 ? source.extreme(type) : real ? source.real(type, 1, 253) : source.bits();
        break;
      case 6:  // products of two are about the smallest normal single
        bits = real ? source.real(type, 58, 12) : source.bits() >> 60;
        break;
      case 7:
        bits = source.bits();
        break;
    }
    store(data + at, bits, size);
  }
}

// ------------------------------------------------------------------------------------------ programme

struct Operand {
  ox_mat_t m{};
  std::size_t memory = 0;
  std::size_t bytes = 0;
};

struct Shape {
  std::int32_t rows, cols;
};

class Programme {
 public:
  // Every input begins with the same memory.
  void run(Input& input) {
    input_ = &input;
    for (Guarded& memory : memory_) {
      std::memset(memory.begin(), 0x3C, Guarded::kBytes);
      memory.twin_follows();
    }
    for (int i = 0; i < kMostCalls && !input.empty(); ++i) call();
  }

 private:
  using Routine = void (Programme::*)();

  void call() {
    static constexpr Routine routines[] = {
        &Programme::setzero,   &Programme::setone, &Programme::diagonals, &Programme::neg,    &Programme::scale,
        &Programme::add_sub,   &Programme::mul,    &Programme::mul,       &Programme::muladd, &Programme::muladd,
        &Programme::submul,    &Programme::submul, &Programme::inv,       &Programme::print,  &Programme::record,
        &Programme::transpose, &Programme::fixed3};
    (this->*input_->pick(routines))();
  }

  // --- operands

  std::uint32_t any_type(bool one_channel) {
    const std::uint8_t byte = input_->byte();
    const std::uint32_t depth = byte & 7u;
    std::uint32_t channels = 1;
    if (!one_channel) channels = byte < 160 ? 1u : byte < 232 ? 2u + (byte >> 3 & 7u) : 32u - (byte >> 3 & 3u);
    // The upper bits mean nothing.
    return OX_TYPE(depth, channels) | (input_->one_in(4) ? 0xABCDEF00u : 0u);
  }

  std::int32_t any_size() {
    static constexpr std::int32_t sizes[] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15, 16,
                                             17, 18, 19, 20, 23, 24, 25, 31, 32, 33, 36, 40, 41, 47, 48, 49,
                                             51, 63, 64, 65, 72, 80, 96, 97, 127, 129, 144, 200, 256, 300, 0, -1};
    return input_->pick(sizes);
  }

  Shape any_shape(std::uint32_t type) {
    Shape shape{any_size(), any_size()};
    while (std::max(bytes_of(type, shape, false), bytes_of(type, shape, true)) > kMostBytes)
      (shape.rows > shape.cols ? shape.rows : shape.cols) /= 2;
    return shape;
  }

  // Bytes that a routine may touch: the fills write some also to an empty matrix, and two negative sizes count together
  // as a positive one.
  static std::size_t bytes_of(std::uint32_t type, Shape shape, bool filled) {
    const std::size_t element = reference::scalar_size(type) * reference::channels(type);
    const auto rows = static_cast<std::size_t>(std::abs(shape.rows));
    const auto cols = static_cast<std::size_t>(std::abs(shape.cols));
    const bool empty = shape.rows <= 0 || shape.cols <= 0;
    if (empty && filled) return (1 + rows + cols) * element;
    return (shape.rows < 0) != (shape.cols < 0) ? 0 : rows * cols * element;
  }

  // At an end of the memory or somewhere inside.
  unsigned char* place(std::size_t memory, std::size_t bytes, std::size_t alignment) {
    const std::size_t room = Guarded::kBytes - bytes;
    const std::uint8_t where = input_->byte();
    std::size_t at = room;
    if (where % 4 == 1) at = 0;
    if (where % 4 >= 2) at = std::min(room, (where % 4 == 3 ? 2048u : 64u) + where / 4u * alignment);
    return memory_[memory].begin() + at / alignment * alignment;
  }

  static std::size_t alignment(std::uint32_t type) { return std::min<std::size_t>(reference::scalar_size(type), 4); }

  Operand operand(std::size_t memory, std::uint32_t type, Shape shape, bool filled = false) {
    Operand o;
    o.memory = memory;
    o.bytes = bytes_of(type, shape, filled);
    o.m = {type, shape.rows, shape.cols, any_step(), place(memory, o.bytes, alignment(type))};
    fill(*input_, type, data(o), o.bytes);
    memory_[memory].twin_follows(data(o), o.bytes);
    return o;
  }

  // Only two routines read it, and they set it.
  std::int32_t any_step() { return static_cast<std::int8_t>(input_->byte()); }

  // An operand of the same size on the same memory, `bytes` behind or before it as far as there is room.
  Operand shifted(const Operand& o, std::ptrdiff_t bytes) {
    Operand other = o;
    const std::ptrdiff_t at = data(o) - memory_[o.memory].begin();
    const auto room = static_cast<std::ptrdiff_t>(Guarded::kBytes - o.bytes);
    if (at + bytes >= 0 && at + bytes <= room) other.m.data = data(o) + bytes;
    return other;
  }

  // The destination of an element-wise routine: elsewhere, the source itself, or over it in part.
  Operand destination(const Operand& src, bool arithmetic) {
    const std::uint8_t way = input_->byte();
    if (way % 4 == 0) return src;
    if (way % 4 != 1) return operand(3, src.m.type, {src.m.rows, src.m.cols});
    // A NaN of arithmetic that is read again as half of another number has no defined bits.
    const auto step = static_cast<std::ptrdiff_t>(
        arithmetic ? reference::scalar_size(src.m.type) : alignment(src.m.type));
    return shifted(src, step * (static_cast<std::int8_t>(input_->byte()) / 2));
  }

  // Now and then something does not fit. The operand's memory is not to be touched then.
  void spoil(Operand& o) {
    const std::uint8_t byte = input_->byte();
    if (byte < 224) return;
    switch (byte % 8) {
      case 0:
        o.m.rows += 1;
        break;
      case 1:
        o.m.cols += 1;
        break;
      case 2:
        o.m.rows -= 1;
        break;
      case 3:
        std::swap(o.m.rows, o.m.cols);
        break;
      case 4:
        o.m.type ^= 1u << 3;
        break;
      case 5:
        o.m.type ^= 1u << 8;
        break;
      case 6:
        o.m.type ^= 1u;
        break;
      default:
        o.m.cols = -o.m.cols;
        break;
    }
  }

  // --- calls

  static unsigned char* data(const Operand& o) { return static_cast<unsigned char*>(o.m.data); }

  reference::Matrix twin(const Operand& o) {
    return {o.m.type, o.m.rows, o.m.cols, o.m.step, memory_[o.memory].twin(o.m.data)};
  }

  // The library's call on memory of which only the operands can be reached; then the reference's on the twins.
  template <class Library, class Reference>
  void compare(const char* name, std::initializer_list<const Operand*> operands, const Operand& dst, bool arithmetic,
               Library library, Reference expected) {
    for (const Operand* o : operands) memory_[o->memory].poison();
    for (const Operand* o : operands) ASAN_UNPOISON_MEMORY_REGION(o->m.data, o->bytes);
    library();
    for (const Operand* o : operands) memory_[o->memory].unpoison();
    expected();
    for (const Operand* o : operands) {
      Guarded& memory = memory_[o->memory];
      if (memory.same()) continue;
      if (arithmetic && o->memory == dst.memory) accept_nans(dst);
      if (!memory.same()) fail(name, operands);
    }
  }

  // All NaNs that arithmetic makes are one value: the twin takes over the library's.
  void accept_nans(const Operand& dst) {
    if ((dst.m.type & 7u) == OX_F32) accept_nans_of<float>(dst);
    if ((dst.m.type & 7u) == OX_F64) accept_nans_of<double>(dst);
  }
  template <class T> void accept_nans_of(const Operand& dst) {
    for (std::size_t at = 0; at + sizeof(T) <= dst.bytes; at += sizeof(T)) {
      unsigned char* const expected = memory_[dst.memory].twin(data(dst)) + at;
      T got, want;
      std::memcpy(&got, data(dst) + at, sizeof got);
      std::memcpy(&want, expected, sizeof want);
      if (got != got && want != want) std::memcpy(expected, data(dst) + at, sizeof got);
    }
  }

  [[noreturn]] void fail(const std::string& name, std::initializer_list<const Operand*> operands) {
    std::string text = name;
#if defined(__x86_64__)
    text += ", vectors of " + std::to_string(ox::chosen_kernels->bytes) + " bytes";
#endif
    for (const Operand* o : operands)
      text += "; type " + std::to_string(o->m.type) + " " + std::to_string(o->m.rows) + " x " +
              std::to_string(o->m.cols) + " at " + std::to_string(o->memory) + ":" +
              std::to_string(data(*o) - memory_[o->memory].begin());
    fuzz::fail(text);
  }

  void setzero() {
    const std::uint32_t type = any_type(false);
    Operand m = operand(0, type, any_shape(type));
    // Whatever the columns are: rows and step alone count, and may both be negative.
    m.m.step = m.m.step * input_->pick({1, 4, 16});
    if (input_->one_in(8)) m.m.rows = m.m.step = 65536;  // nothing, modulo 2^32
    const auto bytes = static_cast<std::uint32_t>(m.m.rows) * static_cast<std::uint32_t>(m.m.step);
    if ((m.m.rows < 0) != (m.m.step < 0)) {
      m.bytes = 0;
    } else {
      if (bytes > Guarded::kBytes) return;
      m.bytes = bytes;
      m.m.data = place(0, bytes, alignment(type));
    }
    compare("setzero", {&m}, m, false, [&] { ox_mat_setzero(&m.m); }, [&] { reference::setzero(twin(m)); });
  }

  void setone() {
    const std::uint32_t type = any_type(false);
    Operand m = operand(0, type, any_shape(type));
    if (input_->one_in(16)) m.m.rows = m.m.cols = 65536;
    compare("setone", {&m}, m, false, [&] { ox_mat_setone(&m.m); }, [&] { reference::setone(twin(m)); });
  }

  void diagonals() {
    const std::uint32_t type = any_type(false);
    const Shape shape = any_shape(type);
    Operand m = operand(0, type, shape, true);
    const std::int32_t count = std::max(std::min(shape.rows, shape.cols), 1);
    const Operand values = operand(1, type & 7u, {1, count});
    if (input_->byte() % 2 == 0)
      compare("setidentity", {&m}, m, false, [&] { ox_mat_setidentity(&m.m); },
              [&] { reference::setidentity(twin(m)); });
    else
      compare("setdiagonal", {&m, &values}, m, false, [&] { ox_mat_setdiagonal(values.m.data, &m.m); },
              [&] { reference::setdiagonal(twin(values).data, twin(m)); });
  }

  void neg() {
    const std::uint32_t type = any_type(false);
    Operand src = operand(0, type, any_shape(type));
    Operand dst = destination(src, false);
    spoil(dst);
    compare("neg", {&src, &dst}, dst, false, [&] { ox_mat_neg(&src.m, &dst.m); },
            [&] { reference::neg(twin(src), twin(dst)); });
  }

  void scale() {
    const std::uint32_t type = any_type(false);
    Operand src = operand(0, type, any_shape(type));
    Operand dst = destination(src, true);
    spoil(dst);
    Operand factor = operand(1, type & 7u, {1, 1});
    if (input_->one_in(4) && dst.bytes >= factor.bytes) {
      // It is read once, before the loop that writes over it.
      factor.memory = dst.memory;
      factor.m.data = data(dst) + dst.bytes / 2 / factor.bytes * factor.bytes;
    }
    compare("scale", {&src, &factor, &dst}, dst, true, [&] { ox_mat_scale(factor.m.data, &src.m, &dst.m); },
            [&] { reference::scale(twin(factor).data, twin(src), twin(dst)); });
  }

  void add_sub() {
    const std::uint32_t type = any_type(false);
    Operand a = operand(0, type, any_shape(type));
    Operand b = destination(a, true);
    if (b.memory != a.memory) b = operand(1, type, {a.m.rows, a.m.cols});
    spoil(b);
    Operand dst = destination(input_->one_in(2) ? b : a, true);
    spoil(dst);
    if (input_->byte() % 2 == 0)
      compare("add", {&a, &b, &dst}, dst, true, [&] { ox_mat_add(&a.m, &b.m, &dst.m); },
              [&] { reference::add(twin(a), twin(b), twin(dst)); });
    else
      compare("sub", {&a, &b, &dst}, dst, true, [&] { ox_mat_sub(&a.m, &b.m, &dst.m); },
              [&] { reference::sub(twin(a), twin(b), twin(dst)); });
  }

  void transpose() {
    const std::uint32_t type = any_type(false);
    Operand src = operand(0, type, any_shape(type));
    Operand dst = destination(src, false);
    std::swap(dst.m.rows, dst.m.cols);
    spoil(dst);
    compare("transpose", {&src, &dst}, dst, false, [&] { ox_mat_transpose(&src.m, &dst.m); },
            [&] { reference::transpose(twin(src), twin(dst)); });
  }

  struct Extent {
    std::int32_t m, n, k;
  };

  Extent any_extent(std::uint32_t type) {
    Extent e{any_size(), any_size(), any_size()};
    const auto product = [](std::int64_t x, std::int64_t y) {
      return std::max<std::int64_t>(x, 1) * std::max<std::int64_t>(y, 1);
    };
    const auto most = static_cast<std::int64_t>(kMostBytes / reference::scalar_size(type));
    while (product(e.m, e.n) > most || product(e.m, e.k) > most || product(e.k, e.n) > most ||
           product(e.m, e.n) * std::max(e.k, 1) > kMostSteps) {
      std::int32_t& largest = e.m >= e.n && e.m >= e.k ? e.m : e.n >= e.k ? e.n : e.k;
      largest /= 2;
    }
    return e;
  }

  struct Factors {
    Operand a, b, c, dst;
  };

  // c is apart or is dst; the factors may be one matrix, or share memory.
  Factors factors(std::uint32_t type, Extent e, bool a_transposed, bool b_transposed) {
    const std::uint8_t ways = input_->byte();
    Factors f;
    f.a = operand(0, type, a_transposed ? Shape{e.k, e.m} : Shape{e.m, e.k});
    const Shape b_shape = b_transposed ? Shape{e.n, e.k} : Shape{e.k, e.n};
    const bool one = (ways & 3) == 3 && b_shape.rows == f.a.m.rows && b_shape.cols == f.a.m.cols;
    f.b = one ? f.a : operand((ways & 3) == 2 ? 0 : 1, type, b_shape);
    f.dst = operand(3, type, {e.m, e.n}, true);
    f.c = ways & 4 ? f.dst : operand(2, type, {e.m, e.n});
    Operand* const all[] = {&f.a, &f.b, &f.c, &f.dst};
    spoil(*all[ways >> 4 & 3]);
    if (input_->one_in(32))
      for (Operand* o : all) o->m.type |= 2u << 3;  // several channels are refused
    return f;
  }

  void mul() {
    const std::uint32_t type = any_type(true);
    const Extent e = any_extent(type);
    const std::uint32_t flags = input_->byte();
    const bool a_transposed = flags & OX_MAT_TRANSPOSE_A;
    Factors f = factors(type, e, a_transposed, !a_transposed && flags & OX_MAT_TRANSPOSE_B);
    compare("mul", {&f.a, &f.b, &f.dst}, f.dst, true, [&] { ox_mat_mul(&f.a.m, &f.b.m, &f.dst.m, flags); },
            [&] { reference::mul(twin(f.a), twin(f.b), twin(f.dst), flags); });
  }

  void muladd() {
    const std::uint32_t type = any_type(true);
    const Extent e = any_extent(type);
    const std::uint32_t flags = input_->byte();
    Factors f = factors(type, e, false, flags & OX_MAT_TRANSPOSE_B);
    // Without terms c is copied: its NaNs keep their bits.
    compare("muladd", {&f.a, &f.b, &f.c, &f.dst}, f.dst, e.k > 0,
            [&] { ox_mat_muladd(&f.a.m, &f.b.m, &f.c.m, &f.dst.m, flags); },
            [&] { reference::muladd(twin(f.a), twin(f.b), twin(f.c), twin(f.dst), flags); });
  }

  void submul() {
    const std::uint32_t type = any_type(true);
    const Extent e = any_extent(type);
    const std::uint32_t flags = input_->byte();
    Factors f = factors(type, e, false, false);
    if (flags & OX_MAT_IDENTITY_C && f.dst.m.data != f.c.m.data && input_->byte() % 2 == 0) {
      f.c.m.rows = any_size();  // of any shape
      if (input_->byte() % 2 == 0)
        return compare("submul without c", {&f.a, &f.b, &f.dst}, f.dst, e.k > 0,
                       [&] { ox_mat_submul(nullptr, &f.a.m, &f.b.m, &f.dst.m, flags); },
                       [&] { reference::submul(nullptr, twin(f.a), twin(f.b), twin(f.dst), flags); });
    }
    compare("submul", {&f.a, &f.b, &f.c, &f.dst}, f.dst, e.k > 0,
            [&] { ox_mat_submul(&f.c.m, &f.a.m, &f.b.m, &f.dst.m, flags); },
            [&] {
              const reference::Matrix c = twin(f.c);
              reference::submul(&c, twin(f.a), twin(f.b), twin(f.dst), flags);
            });
  }

  void inv() {
    // Mostly small; now and then near the most that is served.
    const std::int32_t n = input_->one_in(32) ? input_->between(38, 41) : input_->between(-1, 17);
    const std::uint32_t type = input_->one_in(32) ? any_type(false) : static_cast<std::uint32_t>(OX_F32);
    if (bytes_of(type, {n, n}, false) > Guarded::kBytes) return;
    Operand src = operand(0, type, {n, n});
    Operand dst = destination(src, true);
    // A zero pivot is what makes rows change places.
    if (n > 0 && type == OX_F32) {
      for (std::int32_t zeros = input_->between(0, 3); zeros > 0; --zeros) {
        const auto k = static_cast<std::size_t>(input_->between(0, n - 1));
        std::memset(data(src) + 4 * k * (static_cast<std::size_t>(n) + 1), 0, 4);
      }
      memory_[0].twin_follows(data(src), src.bytes);
    }
    spoil(dst);
    work_area.prepare(n < 18 ? 18 : 40);
    std::int32_t got = 0, want = 0;
    compare("inv", {&src, &dst}, dst, true, [&] { got = ox_mat_inv(&src.m, &dst.m); },
            [&] { want = work_area.inverter.inv(twin(src), twin(dst)); });
    if (got != want) fail("what inv returns", {&src, &dst});
  }

  // Into memory: the C library's standard output is a variable.
  void print() {
    static char* text = nullptr;
    static std::size_t length = 0;
    static std::FILE* const stream = open_memstream(&text, &length);
    if (stream == nullptr) std::abort();
    const std::uint32_t type = any_type(false);
    Operand m = operand(0, type, {input_->between(-1, 3), input_->between(-1, 4)});
    const char* const name = input_->byte() % 2 == 0 ? nullptr : "m";
    // The scalars shown are the first ones of each row, counted over the channels.
    const std::int32_t size = static_cast<std::int32_t>(reference::scalar_size(type));
    m.m.step = input_->one_in(2) ? reference::packed_step(type, m.m.cols) : size * input_->between(0, 6);
    const std::int32_t last = (m.m.rows - 1) * (m.m.step / size) + m.m.cols;
    m.bytes = m.m.rows > 0 && m.m.cols > 0 ? static_cast<std::size_t>(last * size) : 0;
    m.m.data = place(0, m.bytes, alignment(type));
    std::FILE* const standard = stdout;
    std::rewind(stream);
    compare("print", {&m}, m, false,
            [&] {
              stdout = stream;
              ox_mat_print(name, &m.m);
              stdout = standard;
            },
            [&] {
              std::fflush(stream);
              const auto written = static_cast<std::size_t>(std::ftell(stream));
              if (std::string(text, written) != reference::print_text(name, twin(m))) fail("print", {&m});
            });
  }

  void record() {
    const std::uint32_t type = any_type(false);
    const Shape shape = any_shape(type);
    const std::int32_t step = reference::packed_step(type, shape.cols);
    // A header at the end of its memory.
    Operand header;
    header.bytes = sizeof(ox_mat_t);
    header.m.data = memory_[0].begin() + Guarded::kBytes - sizeof(ox_mat_t);
    void* const elements = memory_[1].begin();
    const ox_mat_t expected{type, shape.rows, shape.cols, step, elements};
    compare("initheader", {&header}, header, false,
            [&] {
              auto* const hdr = static_cast<ox_mat_t*>(header.m.data);
              if (ox_mat_initheader(hdr, shape.rows, shape.cols, type, elements) != hdr) fail("initheader", {&header});
            },
            [&] { std::memcpy(twin(header).data, &expected, sizeof expected); });

    const bool no_memory = input_->one_in(8);
    if (shape.rows < 0 || shape.cols < 0) return;
    alloc_hook::reset();
    if (no_memory) alloc_hook::fail_from(1, 1);
    ox_mat_t* const m = ox_mat_create(shape.rows, shape.cols, type);
    const std::size_t asked = alloc_hook::last_size();
    const std::size_t bytes = bytes_of(type, shape, false);
    bool right = (m == nullptr) == no_memory && asked == sizeof(ox_mat_t) + bytes;
    if (m != nullptr) {
      right = right && m->type == type && m->rows == shape.rows && m->cols == shape.cols && m->step == step &&
              m->data == m + 1;
      std::memset(m->data, 0x5A, bytes);
    }
    ox_mat_release(m);
    right = right && alloc_hook::live() == 0;
    alloc_hook::reset();
    if (!right) fail("create or release", {&header});
  }

  void fixed3() {
    const std::uint8_t which = input_->byte() % 9;
    const bool takes_vector = which == 2 || which == 3 || which >= 6;
    const bool gives_vector = which == 2 || which == 3 || which == 7;
    const bool vector_first = which >= 6;
    const Operand a = operand(0, OX_F32, {vector_first ? 1 : 3, 3});
    Operand b = operand(1, OX_F32, {takes_vector ? 1 : 3, 3});
    if (a.bytes == b.bytes && input_->one_in(4)) b = a;
    Operand dst = operand(3, OX_F32, {gives_vector ? 1 : 3, 3});
    const auto floats = [](const Operand& o) { return static_cast<float*>(o.m.data); };
    const auto twins = [&](const Operand& o) { return reinterpret_cast<float*>(twin(o).data); };
    const auto routine = [&](auto library, auto expected) {
      compare("3 x 3", {&a, &b, &dst}, dst, true, [&] { library(floats(a), floats(b), floats(dst)); },
              [&] { expected(twins(a), twins(b), twins(dst)); });
    };
    float got = 0, want = 0;
    switch (which) {
      case 0:
        return routine(_matmult_3x3, reference::matmult_3x3);
      case 1:
        return routine(_matmult_3x3t, reference::matmult_3x3t);
      case 2:
        return routine(_matmult_3x3vec, reference::matmult_3x3vec);
      case 3:
        return routine(_matmult_3x3tvec, reference::matmult_3x3tvec);
      case 4:
        return compare("_matneg_3x3", {&a}, a, false, [&] { _matneg_3x3(floats(a)); },
                       [&] { reference::matneg_3x3(twins(a)); });
      case 5:
        compare("_matdet_3x3", {&a}, a, false, [&] { got = _matdet_3x3(floats(a)); },
                [&] { want = reference::matdet_3x3(twins(a)); });
        break;
      case 6:
        return routine(_vecoutp_3, reference::vecoutp_3);
      case 7:
        return routine(_veccrossp_3, reference::veccrossp_3);
      default:
        compare("_vecdotp_3", {&a, &b}, a, false, [&] { got = _vecdotp_3(floats(a), floats(b)); },
                [&] { want = reference::vecdotp_3(twins(a), twins(b)); });
        break;
    }
    if (std::memcmp(&got, &want, sizeof got) != 0 && (got == got || want == want)) fail("a number", {&a, &b});
  }

  Guarded memory_[4];
  Input* input_ = nullptr;

 public:
  fuzz::SameWorkArea work_area;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Programme programme;
  Input input(data, size);
  const std::uint8_t first = input.byte();
  fuzz::choose_width(first);
  programme.work_area.begin_input();
  if (first >= 224)
    fuzz::run_filter(input, programme.work_area);
  else
    programme.run(input);
  return 0;
}
