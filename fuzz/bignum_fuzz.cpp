// Big numbers: import and export, the laws of arithmetic, division and powers.
#include "fuzz.h"
#include "modules/Crypto/c/bignum.h"

namespace velprobe {
namespace {

constexpr std::uint64_t kRoom = 300;

BigNumPtr imported(std::string_view bytes) {
  BigNumPtr number = bn_new(0, kRoom);
  REQUIRE(!bn_set_data(number.get(), bytes_of(bytes), bytes.size()));
  bn_normalize(number.get());
  return number;
}

std::string exported(const BigNum* number) {
  std::string bytes(4 * number->len, '\0');
  std::uint64_t length = bytes.size();
  REQUIRE(!bn_get_data(number, reinterpret_cast<std::uint8_t*>(bytes.data()),
                       length));
  bytes.resize(length);
  return bytes;
}

BigNumPtr remainder_of(const BigNum* a, const BigNum* m) {
  BigNumPtr rest = bn_copy(a, kRoom);
  const BigNumPtr scratch = bn_new(0, kRoom);
  REQUIRE(bn_mod(rest.get(), m, scratch.get()) == 0);
  return rest;
}

}  // namespace

void fuzz_one(Input input) {
  const std::string_view first = input.take(input.byte());
  const BigNumPtr a = imported(first);
  const BigNumPtr b = imported(input.take(input.byte()));
  REQUIRE(exported(a.get()) ==
          first.substr(std::min(first.find_first_not_of('\0'), first.size())));

  const BigNumPtr sum = bn_copy(a.get(), kRoom);
  REQUIRE(bn_add(sum.get(), b.get()) == 0);
  REQUIRE(bn_less_equal(b.get(), sum.get()));
  REQUIRE(bn_sub(sum.get(), b.get()) == 0);
  bn_normalize(sum.get());
  REQUIRE(bn_equal(sum.get(), a.get()));

  const std::uint64_t shift = input.byte();
  REQUIRE(bn_shift_left(sum.get(), shift) == 0);
  const BigNumPtr power = bn_power_of_two(shift);
  REQUIRE(bn_equal(sum.get(), bn_mul(a.get(), power.get()).get()));
  bn_shift_right(sum.get(), shift);
  REQUIRE(bn_equal(sum.get(), a.get()));

  const BigNumPtr product = bn_mul(a.get(), b.get());
  REQUIRE(bn_equal(product.get(), bn_mul(b.get(), a.get()).get()));
  if (bn_equal_word(b.get(), 0))
    return REQUIRE(bn_div(a.get(), b.get()) == nullptr);
  REQUIRE(bn_equal(bn_div(product.get(), b.get()).get(), a.get()));

  // a = quotient * b + rest, with rest < b
  const BigNumPtr rest = remainder_of(a.get(), b.get());
  REQUIRE(bn_less(rest.get(), b.get()));
  const BigNumPtr quotient = bn_div(a.get(), b.get());
  const BigNumPtr back = bn_mul(quotient.get(), b.get());
  REQUIRE(bn_add(back.get(), rest.get()) == 0);
  REQUIRE(bn_equal(back.get(), a.get()));

  // a^3 mod b
  const BigNumPtr cube = bn_power_mod(a.get(), bn_from_word(3).get(), b.get());
  const BigNumPtr plain =
      bn_mul(bn_mul(rest.get(), rest.get()).get(), rest.get());
  REQUIRE(bn_equal(cube.get(), remainder_of(plain.get(), b.get()).get()));
}

void make_seeds() {
  for (std::uint64_t bits : {1U, 31U, 32U, 512U, 1024U}) {
    const std::string power = exported(bn_power_of_two(bits).get());
    const char size = static_cast<char>(power.size());
    add_seed(size + power + size + std::string(power.size(), '\xF1') + '\x21');
  }
}

}  // namespace velprobe
