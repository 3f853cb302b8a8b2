// Big numbers: import and export, division and powers.
#include "fuzz.h"
#include "modules/Crypto/bignum.h"

namespace velprobe {
namespace {

constexpr std::uint64_t kRoom = 300;

BigNumPtr imported(std::string_view bytes) {
  BigNumPtr number = bn_new(0, kRoom);
  REQUIRE(!bn_set_data(number.get(), bytes_of(bytes), bytes.size()));
  bn_normalize(number.get());
  return number;
}

BigNumPtr remainder_of(const BigNum* a, const BigNum* m) {
  BigNumPtr rest = bn_copy(a, kRoom);
  const BigNumPtr scratch = bn_new(0, kRoom);
  REQUIRE(bn_mod(rest.get(), m, scratch.get()) == 0);
  return rest;
}

}  // namespace

void fuzz_one(Input input) {
  std::string_view first = input.take(input.byte());
  const BigNumPtr a = imported(first);
  const BigNumPtr b = imported(input.take(input.byte()));
  std::uint8_t bytes[256];
  std::uint64_t length = sizeof bytes;
  REQUIRE(!bn_get_data(a.get(), bytes, length));
  first.remove_prefix(std::min(first.find_first_not_of('\0'), first.size()));
  REQUIRE(first == std::string_view(reinterpret_cast<char*>(bytes), length));

  // a = quotient * b + rest, with rest < b
  const BigNumPtr quotient = bn_div(a.get(), b.get());
  REQUIRE((quotient == nullptr) == bn_equal_word(b.get(), 0));
  if (quotient == nullptr) return;
  const BigNumPtr rest = remainder_of(a.get(), b.get());
  REQUIRE(bn_less(rest.get(), b.get()));
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
  for (std::size_t size : {1U, 4U, 5U, 64U, 127U}) {
    const std::string prefix(1, static_cast<char>(size));
    add_seed(prefix + std::string(size, '\x80') + prefix +
             std::string(size, '\xF1'));
  }
}

}  // namespace velprobe
