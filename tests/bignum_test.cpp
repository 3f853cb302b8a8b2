#include "modules/Crypto/c/bignum.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

// Requests that no machine can meet are part of the tests: under the address
// sanitizer, too, they are to be refused and not to end the process.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}

namespace velprobe {
namespace {

using Limbs = std::vector<std::uint32_t>;

// Fixed is a number with exactly as many limbs of room as asked for, so that
// the address sanitizer sees every step beyond it.
struct Fixed {
  explicit Fixed(const Limbs& limbs, std::size_t size = 0)
      : memory(std::max(size, limbs.size())) {
    std::copy(limbs.begin(), limbs.end(), memory.begin());
    num = {memory.data(), limbs.size(), memory.size()};
    bn_normalize(&num);
  }
  Fixed(const Fixed&) = delete;
  operator BigNum*() { return &num; }

  Limbs memory;
  BigNum num{};
};

Limbs value_of(const BigNum* num) {
  return num == nullptr ? Limbs{0xDEAD}
                        : Limbs(num->data, num->data + num->len);
}

std::vector<std::uint8_t> bytes_of(const BigNum* num) {
  std::vector<std::uint8_t> bytes(4 * num->len);
  std::uint64_t length = bytes.size();
  EXPECT_FALSE(bn_get_data(num, bytes.data(), length));
  bytes.resize(length);
  return bytes;
}

TEST(BigNum, CapacityFollowsTheRequest) {
  struct {
    std::uint64_t min_limbs, size;
  } const kRows[] = {{0, 16}, {9, 16}, {10, 16}, {11, 17}, {16, 25}, {17, 26}};
  for (const auto& row : kRows) {
    EXPECT_EQ(bn_new(7, row.min_limbs)->size, row.size) << row.min_limbs;
  }
  EXPECT_EQ(bn_new(0, 1)->len, 0u);
  EXPECT_EQ(bn_from_word(5)->size, 25u);
  EXPECT_EQ(bn_dup(bn_new(1, 99).get())->size, 16u);
  EXPECT_EQ(bn_copy(bn_new(1, 0).get(), 40)->size, 40u);
  for (std::uint64_t limbs :
       {std::uint64_t{1} << 61, ~std::uint64_t{0}, ~std::uint64_t{0} / 3 * 2}) {
    EXPECT_EQ(bn_new(1, limbs), nullptr) << limbs;
  }
}

TEST(BigNum, BytesInAndOut) {
  struct {
    std::vector<std::uint8_t> in;
    Limbs limbs;
    std::vector<std::uint8_t> out;
  } const kRows[] = {
      {{}, {}, {}},
      {{0, 0, 0, 0, 0}, {}, {}},
      {{0, 0, 1}, {1}, {1}},
      {{1, 0}, {256}, {1, 0}},
      {{0x80, 1, 2, 3}, {0x80010203}, {0x80, 1, 2, 3}},
      {{9, 0x80, 1, 2, 3}, {0x80010203, 9}, {9, 0x80, 1, 2, 3}},
      {{0, 0xAB, 0xCD, 0xEF, 4, 5, 6, 7},
       {0x04050607, 0xABCDEF},
       {0xAB, 0xCD, 0xEF, 4, 5, 6, 7}},
  };
  for (const auto& row : kRows) {
    const BigNumPtr num = bn_new(0, 0);
    for (int i = 0; i < 16; ++i) num->data[i] = 0xFFFFFFFF;
    num->len = 16;
    ASSERT_FALSE(bn_set_data(num.get(), row.in.data(), row.in.size()));
    EXPECT_EQ(value_of(num.get()), row.limbs);
    EXPECT_EQ(bytes_of(num.get()), row.out);
    for (std::uint64_t i = num->len; i < 16; ++i) EXPECT_EQ(num->data[i], 0u);
  }
}

TEST(BigNum, SetDataGrowsWhenItMust) {
  const BigNumPtr num = bn_new(3, 0);
  std::vector<std::uint8_t> bytes(65, 0x11);
  ASSERT_FALSE(bn_set_data(num.get(), bytes.data(), 64));
  EXPECT_EQ(num->size, 16u);
  ASSERT_FALSE(bn_set_data(num.get(), bytes.data(), 65));
  EXPECT_EQ(num->size, 17u);
  EXPECT_EQ(bytes_of(num.get()), bytes);

  const Limbs before = value_of(num.get());
  const ErrorText error = bn_set_data(num.get(), bytes.data(),
                                      std::numeric_limits<std::int64_t>::max());
  EXPECT_STREQ(error.c_str(), "Unable to allocate space for new data");
  EXPECT_EQ(value_of(num.get()), before);
}

TEST(BigNum, GetDataAsksForWholeLimbs) {
  Fixed num({256, 1});
  std::uint8_t buffer[8];
  std::uint64_t length = 7;
  EXPECT_STREQ(bn_get_data(num, buffer, length).c_str(),
               "Buffer given to bn_get_data is too small");
  EXPECT_EQ(length, 8u);
}

TEST(BigNum, TopBitAndComparisonWithWords) {
  struct {
    Limbs limbs;
    std::uint32_t top_bit;
    bool equals7, less7, at_most7, greater7;
  } const kRows[] = {
      {{}, 0, false, true, true, false},
      {{1}, 0, false, true, true, false},
      {{7}, 2, true, false, true, false},
      {{8}, 3, false, false, false, true},
      {{0x80000000}, 31, false, false, false, true},
      {{7, 1}, 32, false, false, false, true},
  };
  for (const auto& row : kRows) {
    Fixed num(row.limbs);
    EXPECT_EQ(bn_top_bit(num), row.top_bit);
    EXPECT_EQ(bn_equal_word(num, 7), row.equals7);
    EXPECT_EQ(bn_less_word(num, 7), row.less7);
    EXPECT_EQ(bn_at_most_word(num, 7), row.at_most7);
    EXPECT_EQ(bn_greater_word(num, 7), row.greater7);
    EXPECT_EQ(bn_equal_word(num, 0), row.limbs.empty());
  }
}

// One row runs one operation at the edge of its room.
TEST(BigNum, RoomIsCheckedBeforeAnythingChanges) {
  using Operation = std::function<int(BigNum*)>;
  Fixed two_limbs({5, 6}), zero({}), five({5}), seven({7});
  BigNum* const two = two_limbs;
  const auto left = [](std::uint64_t n) -> Operation {
    return [n](BigNum* a) { return bn_shift_left(a, n); };
  };
  const auto power = [](std::uint64_t b) -> Operation {
    return [b](BigNum* a) { return bn_set_power_of_two(a, b); };
  };
  const auto word = [](std::uint32_t w) -> Operation {
    return [w](BigNum* a) { return bn_set_word(a, w); };
  };
  const auto quotient = [two](BigNum* b) -> Operation {
    return [two, b](BigNum* a) { return bn_or_quotient(a, two, b); };
  };
  const Operation add = [=](BigNum* a) { return bn_add(a, two); };
  const Operation copy = [=](BigNum* a) { return bn_copy_into(a, two); };
  const Operation join = [=](BigNum* a) { return bn_or(a, two), 0; };
  const Operation right1 = [](BigNum* a) { return bn_shift_right1(a), 0; };
  const Operation right64 = [](BigNum* a) { return bn_shift_right(a, 64), 0; };
  const Operation mod = [&](BigNum* a) { return bn_mod(a, zero, two_limbs); };
  struct {
    Limbs limbs;
    std::size_t size;
    Operation run;
    int rc;
    Limbs memory;
    std::uint64_t len;
  } const kRows[] = {
      {{1}, 2, add, -1, {1, 0}, 1},
      {{1}, 3, add, 0, {6, 6, 0}, 2},
      {{2}, 2, join, 0, {7, 6}, 2},
      {{3, 1}, 2, right1, 0, {0x80000001, 0}, 1},
      {{3, 1}, 2, right64, 0, {0, 0}, 0},
      {{1}, 1, left(31), 0, {0x80000000}, 1},
      {{3}, 1, left(95), -1, {3}, 4},
      {{3, 0, 0}, 3, left(33), 0, {0, 6, 0}, 2},
      {{3}, 1, left(~0ull - 1), -1, {3}, 0x800000000000000},
      {{}, 1, left(31), 0, {0}, 0},
      {{}, 1, left(32), -1, {0}, 2},
      {{0x80000001}, 1, bn_shift_left1, -1, {0x80000001}, 2},
      {{0x80000001}, 2, bn_shift_left1, 0, {2, 1}, 2},
      {{9}, 1, power(32), -1, {9}, 1},
      {{9, 9}, 2, power(31), 0, {0x80000000, 0}, 1},
      {{9, 9}, 2, word(0), 0, {0, 0}, 1},
      {{}, 0, word(1), -1, {}, 0},
      {{9}, 1, copy, -1, {9}, 1},
      {{9, 9, 9}, 3, copy, 0, {5, 6, 0}, 2},
      {{9}, 2, mod, -1, {9, 0}, 1},
      {{8}, 1, quotient(five), -1, {8}, 1},
      {{2}, 1, quotient(seven), 0, {0xDB6DB6DC | 2}, 1},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(&row - kRows);
    Fixed num(row.limbs, row.size);
    EXPECT_EQ(row.run(num), row.rc);
    EXPECT_EQ(num.memory, row.memory);
    EXPECT_EQ(num.num.len, row.len);
  }
}

// A reduction needs scratch room for its operands and for one bit more, when
// the modulus, aligned to the top of a full limb, is still below the number.
TEST(BigNum, ReductionNeedsScratchRoom) {
  struct {
    Limbs a, b;
    std::size_t scratch;
    int rc;
  } const kRows[] = {
      {{1, 2, 3}, {7}, 2, -1},
      {{7}, {1, 2, 3}, 2, -1},
      {{1, 2, 3}, {7}, 3, 0},
      {{0xFFFFFFFF}, {0x80000000}, 1, -1},
      {{0xFFFFFFFF}, {0x80000000}, 2, 0},
      {{0x80000000}, {0x80000001}, 1, 0},
      {{0xFFFFFFFF, 0xFFFFFFFF}, {3}, 2, -1},
      {{0, 0xC0000000}, {3}, 2, 0},
      {{1, 0xC0000000}, {3}, 2, -1},
      {{5}, {}, 4, -1},
      {{}, {5}, 1, 0},
  };
  for (const auto& row : kRows) {
    Fixed a(row.a);
    Fixed b(row.b);
    Fixed scratch({}, row.scratch);
    EXPECT_EQ(base_mod_old_big(a, b, scratch), row.rc);
    if (row.rc == 0) {
      EXPECT_TRUE(bn_less(a, b));
    } else {
      EXPECT_EQ(value_of(a), row.a);
    }
  }
}

TEST(BigNum, PowerModuloChecksItsWorkNumbers) {
  Fixed base({1, 2, 3});
  Fixed exponent({5});
  Fixed modulus({0, 9});
  Fixed zero({});
  struct {
    std::size_t res, mbuf, altbuf;
    int rc;
  } const kRows[] = {
      {5, 7, 7, 0}, {4, 7, 7, -1}, {5, 7, 6, -1}, {5, 7, 8, -1}, {5, 9, 8, 0}};
  for (const auto& row : kRows) {
    Fixed res({8}, row.res), mbuf({}, row.mbuf), altbuf({}, row.altbuf);
    EXPECT_EQ(base_power_modulo(res, base, exponent, modulus, mbuf, altbuf),
              row.rc);
  }
  EXPECT_EQ(bn_power_mod(base, exponent, zero), nullptr);
  EXPECT_EQ(bn_div(base, zero), nullptr);
  Fixed one({1});
  EXPECT_EQ(value_of(bn_power_mod(base, zero, one).get()), Limbs{1});
  EXPECT_EQ(value_of(bn_power_mod(base, exponent, one).get()), Limbs{});
}

TEST(BigNum, SubtractionWrapsAndReportsTheBorrow) {
  Fixed a({1, 1});
  Fixed b({2, 1});
  EXPECT_EQ(bn_sub(a, b), 1u);
  EXPECT_EQ(value_of(a), (Limbs{0xFFFFFFFF, 0xFFFFFFFF}));
  EXPECT_EQ(bn_sub(a, b), 0u);
  EXPECT_EQ(value_of(a), (Limbs{0xFFFFFFFD, 0xFFFFFFFE}));
  Fixed c({0, 1});
  EXPECT_EQ(bn_sub_word(c, 1), 0u);
  EXPECT_EQ(value_of(c), Limbs{0xFFFFFFFF});
  EXPECT_EQ(bn_sub_word(c, 0xFFFFFFFF), 0u);
  EXPECT_EQ(bn_sub_word(c, 5), 1u) << "zero has no limb to borrow from";
}

TEST(BigNum, Decimal) {
  struct {
    Limbs limbs;
    const char* digits;
  } const kRows[] = {
      {{}, "0"},
      {{9}, "9"},
      {{10}, "10"},
      {{0xFFFFFFFF}, "4294967295"},
      {{0x89E80000, 0x8AC72304}, "10000000000000000000"},
      {{0x89E7FFFF, 0x8AC72304}, "9999999999999999999"},
      {{0, 0, 0, 0, 1}, "340282366920938463463374607431768211456"},
  };
  for (const auto& row : kRows) {
    Fixed num(row.limbs);
    EXPECT_STREQ(bn_to_decimal(num).get(), row.digits);
  }
}

// Where the leading words mislead: the estimate of a quotient digit is one too
// large, so that a row is added back, or it would not fit into 64 bits.
TEST(BigNum, DivisionSurvivesMisleadingLeadingWords) {
  struct {
    Limbs divisor, quotient, rest;
  } const kRows[] = {
      {{0xFFFFFFFF, 0, 0, 0, 0, 0x80000000},
       {0xFFFFFFFE, 0xFFFFFFFF, 0xFFFFFFFF, 0x7FFFFFFF},
       {0xFFFFFFFE, 0, 0, 0, 0, 0x80000000}},
      {{5, 0, 0, 0, 0, 0x80000000},
       {0xFFFFFFFF, 0xFFFFFFFF},
       {4, 0, 0, 0, 0, 0x80000000}},
      {{5, 6, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF},
       {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 1},
       {4, 6, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}},
  };
  for (const auto& row : kRows) {
    Fixed divisor(row.divisor), quotient(row.quotient), rest(row.rest);
    const BigNumPtr numerator = bn_mul(divisor, quotient);
    ASSERT_EQ(bn_add(numerator.get(), rest), 0);
    EXPECT_EQ(value_of(bn_div(numerator.get(), divisor).get()), row.quotient);
  }
}

// Random numbers, with runs of equal limbs more often than chance has them:
// those are where carries and estimates go wrong.
class Random {
 public:
  Random() : seed_(choose_seed()), engine_(seed_) {
    ::testing::Test::RecordProperty("seed", std::to_string(seed_));
    std::printf("seed %u (set VELPROBE_SEED to repeat)\n", seed_);
  }
  BigNumPtr number(std::size_t most_limbs) {
    static constexpr std::uint32_t kRuns[] = {0, 1, 0x80000000, 0xFFFFFFFF};
    const std::size_t count = engine_() % (most_limbs + 1);
    BigNumPtr num = bn_new(0, 2 * most_limbs);
    const bool plain = engine_() % 2 != 0;
    for (std::size_t i = 0; i < count; ++i) {
      num->data[i] = plain || engine_() % 4 == 0
                         ? static_cast<std::uint32_t>(engine_())
                         : kRuns[engine_() % 4];
    }
    num->len = count;
    bn_normalize(num.get());
    return num;
  }
  std::uint32_t word() { return static_cast<std::uint32_t>(engine_()); }

 private:
  static unsigned choose_seed() {
    const char* given = std::getenv("VELPROBE_SEED");
    return given == nullptr ? std::random_device{}()
                            : static_cast<unsigned>(std::atol(given));
  }
  unsigned seed_;
  std::mt19937 engine_;
};

TEST(BigNumProperty, ProductAndQuotientAgree) {
  Random random;
  for (int i = 0; i < 20000; ++i) {
    const BigNumPtr a = random.number(24);
    const BigNumPtr b = random.number(12);
    if (b->len == 0) continue;
    const BigNumPtr quotient = bn_div(a.get(), b.get());
    const BigNumPtr rest = bn_dup(a.get());
    const BigNumPtr scratch = bn_new(0, 25);
    ASSERT_EQ(bn_mod(rest.get(), b.get(), scratch.get()), 0);
    ASSERT_TRUE(bn_less(rest.get(), b.get()));

    const BigNumPtr back = bn_mul(quotient.get(), b.get());
    ASSERT_EQ(bn_add(back.get(), rest.get()), 0);
    ASSERT_TRUE(bn_equal(back.get(), a.get()));
    ASSERT_EQ(bn_sub(back.get(), rest.get()), 0u);
    ASSERT_TRUE(bn_equal(bn_div(back.get(), b.get()).get(), quotient.get()));

    // A square by its own routine and by the general one.
    Limbs square(2 * a->len);
    base_big_square(square.data(), a->data, a->len);
    ASSERT_EQ(value_of(bn_mul(a.get(), a.get()).get()),
              value_of(Fixed(square)));
  }
}

TEST(BigNumProperty, WordOperationsAgree) {
  Random random;
  for (int i = 0; i < 5000; ++i) {
    const BigNumPtr a = random.number(9);
    const BigNumPtr b = bn_copy(a.get(), 11);
    const std::uint32_t w = random.word() | 1;
    const std::uint32_t addend = random.word() % w;
    ++b->len;
    base_mul_assign(b->data, b->len - 1, w);
    bn_normalize(b.get());
    const BigNumPtr factor = bn_from_word(w);
    ASSERT_TRUE(bn_equal(b.get(), bn_mul(a.get(), factor.get()).get()));

    bn_add_word(b.get(), addend);
    ASSERT_EQ(base_mod_word(b->data, b->len, w), addend);
    ASSERT_EQ(base_div_word(b->data, b->len, w), addend);
    bn_normalize(b.get());
    ASSERT_TRUE(bn_equal(a.get(), b.get()));
  }
}

TEST(BigNumProperty, ShiftsAgreeWithProductsAndQuotients) {
  Random random;
  for (int i = 0; i < 5000; ++i) {
    const BigNumPtr a = random.number(9);
    const std::uint32_t n = random.word() % 130;
    const BigNumPtr power = bn_power_of_two(n);
    const BigNumPtr left = bn_copy(a.get(), 20);
    ASSERT_EQ(bn_shift_left(left.get(), n), 0);
    ASSERT_TRUE(bn_equal(left.get(), bn_mul(a.get(), power.get()).get()));
    const BigNumPtr right = bn_dup(a.get());
    bn_shift_right(right.get(), n);
    ASSERT_TRUE(bn_equal(right.get(), bn_div(a.get(), power.get()).get()));

    BigNumPtr odd;
    const std::uint64_t twos = bn_strip_twos(a.get(), odd);
    ASSERT_EQ(odd->data[0] & 1, a->len == 0 ? 0u : 1u);
    ASSERT_EQ(bn_shift_left(odd.get(), twos), 0);
    ASSERT_TRUE(bn_equal(odd.get(), a.get()));
  }
}

TEST(BigNumProperty, PowerModAgreesWithRepeatedMultiplication) {
  Random random;
  for (int i = 0; i < 300; ++i) {
    const BigNumPtr base = random.number(8);
    const BigNumPtr modulus = random.number(6);
    if (bn_at_most_word(modulus.get(), 1)) continue;
    const std::uint32_t most = random.word() % 40;
    BigNumPtr expected = bn_from_word(1);
    for (std::uint32_t e = 0; e <= most; ++e) {
      const BigNumPtr exponent = bn_from_word(e);
      ASSERT_TRUE(bn_equal(
          bn_power_mod(base.get(), exponent.get(), modulus.get()).get(),
          expected.get()));
      expected = bn_mul(expected.get(), base.get());
      const BigNumPtr scratch = bn_new(0, 40);
      ASSERT_EQ(bn_mod(expected.get(), modulus.get(), scratch.get()), 0);
    }
    // Longer exponents: x^(a + b) = x^a * x^b.
    const BigNumPtr a = random.number(3);
    const BigNumPtr b = random.number(3);
    const BigNumPtr scratch = bn_new(0, 40);
    const BigNumPtr product =
        bn_mul(bn_power_mod(base.get(), a.get(), modulus.get()).get(),
               bn_power_mod(base.get(), b.get(), modulus.get()).get());
    ASSERT_EQ(bn_mod(product.get(), modulus.get(), scratch.get()), 0);
    ASSERT_EQ(bn_add(a.get(), b.get()), 0);
    ASSERT_TRUE(bn_equal(bn_power_mod(base.get(), a.get(), modulus.get()).get(),
                         product.get()));
  }
}

TEST(BigNumProperty, DecimalAndBytesComeBack) {
  Random random;
  for (int i = 0; i < 500; ++i) {
    const BigNumPtr a = random.number(40);
    const BigNumPtr back = bn_new(0, 42);
    const Text digits = bn_to_decimal(a.get());
    for (const char* digit = digits.get(); *digit != '\0'; ++digit) {
      ++back->len;
      base_mul_assign(back->data, back->len - 1, 10);
      bn_normalize(back.get());
      bn_add_word(back.get(), static_cast<std::uint32_t>(*digit - '0'));
    }
    ASSERT_TRUE(bn_equal(a.get(), back.get())) << digits.get();
    const std::vector<std::uint8_t> bytes = bytes_of(a.get());
    ASSERT_TRUE(bytes.empty() || bytes[0] != 0);
    ASSERT_FALSE(bn_set_data(back.get(), bytes.data(), bytes.size()));
    ASSERT_TRUE(bn_equal(a.get(), back.get()));
  }
}

// Assertion texts hold characters that a pattern would read as its own.
std::string literally(const std::string& text) {
  std::string pattern;
  for (const char c : text) {
    pattern += std::string("()[]+|>!").find(c) == std::string::npos ? c : '.';
  }
  return pattern;
}

TEST(BigNumDeathTest, BrokenInvariantsEndTheProcess) {
  struct {
    const char* text;
    std::function<void()> run;
  } const kRows[] = {
      {"\"num->len <= num->size\" failed: modules/Crypto/c/bignum: "
       "bn_normalize",
       [] {
         bn_add_word(Fixed({1, 1}), 0);
       }},
      {"\"b_len <= a_len\" failed: modules/Crypto/c/base_bignum_c: "
       "base_big_subtract",
       [] {
         bn_sub(Fixed({1}), Fixed({1, 1}));
       }},
      {"\"a->size >= b->len\" failed: modules/Crypto/c/bignum: bn_or",
       [] {
         bn_or(Fixed({1}), Fixed({1, 1}));
       }},
      {"\"nbits < (32)\" failed: modules/Crypto/c/base_bignum_c: "
       "base_shift_right_nbits_small",
       [] { base_shift_right_nbits_small(Fixed({1}).num.data, 1, 32); }},
      {"\"!data[i]\" failed: modules/Crypto/c/base_bignum_c: base_mul_assign",
       [] {
         base_mul_assign(Fixed({1, 1}).num.data, 1, 3);
       }},
      {"\"bit >= 0\" failed: modules/Crypto/c/base_bignum_c: base_set_bit",
       [] { base_set_bit(Fixed({1}).num.data, -1); }},
  };
  for (const auto& row : kRows) EXPECT_DEATH(row.run(), literally(row.text));
}

}  // namespace
}  // namespace velprobe
