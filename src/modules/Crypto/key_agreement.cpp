#include "key_agreement.h"

#include "base_bignum_c.h"
#include "constant_time.h"
#include "primes.h"

namespace velprobe {
namespace {

// GroupSearch holds the numbers of one parameter generation.
struct GroupSearch {
  BigNumPtr low, high, base, exponent, mbuf, altbuf, modulus, generator;

  bool prepare(std::uint32_t bits);
  BigNumPtr find_prime(std::uint32_t low_bit, const BigNum* step,
                       ByteSource source);
  int run(std::uint32_t bits, ByteSource source);
};

bool GroupSearch::prepare(std::uint32_t bits) {
  for (BigNumPtr* num :
       {&low, &high, &base, &exponent, &mbuf, &altbuf, &modulus, &generator}) {
    *num = bn_new(0, (bits / 16 | 1) + 1);
    if (*num == nullptr) return false;
  }
  return true;
}

// find_prime searches from 2^low_bit to twice that.
BigNumPtr GroupSearch::find_prime(std::uint32_t low_bit, const BigNum* step,
                                  ByteSource source) {
  if (bn_set_power_of_two(low.get(), low_bit) != 0 ||
      bn_set_power_of_two(high.get(), std::uint64_t{low_bit} + 1) != 0) {
    return nullptr;
  }
  return bn_find_prime(low.get(), high.get(), step, source);
}

int GroupSearch::run(std::uint32_t bits, ByteSource source) {
  if (!prepare(bits) || bn_set_word(base.get(), 2) != 0) return -1;
  const BigNumPtr q = find_prime(bits / 2, base.get(), source);
  if (q == nullptr) return -1;

  if (bn_copy_into(exponent.get(), q.get()) != 0 ||
      bn_shift_left1(exponent.get()) != 0) {
    return -1;
  }
  const BigNumPtr p = find_prime(bits - 1, exponent.get(), source);
  if (p == nullptr || bn_copy_into(modulus.get(), p.get()) != 0) return -1;

  // The register still holds 2q, so the exponent is (p / q) | 2q. That is the
  // rule by which these groups are made: the cofactor (p - 1) / q would give
  // other generators.
  if (bn_or_quotient(exponent.get(), p.get(), q.get()) != 0) return -1;
  return base_power_modulo(generator.get(), base.get(), exponent.get(),
                           modulus.get(), mbuf.get(), altbuf.get());
}

// is_weak judges a public value by its square: 0 and 1 give the secret away,
// and so does a value that is its own square.
bool is_weak(const BigNum* square, const BigNum* value) {
  return bn_at_most_word(square, 1) || bn_equal(square, value);
}

}  // namespace

void dh_generate_parameters(std::uint32_t bits, BigNumPtr& modulus,
                            BigNumPtr& generator, ByteSource source) {
  constexpr std::uint32_t kFewestBits = 3;
  modulus = nullptr;
  generator = nullptr;
  GroupSearch search;
  if (bits < kFewestBits || search.run(bits, source) != 0) return;
  modulus = std::move(search.modulus);
  generator = std::move(search.generator);
}

ErrorText dh_generate_key(BigNumPtr& public_out, BigNumPtr& private_out,
                          const BigNum* modulus, const BigNum* generator,
                          ByteSource source) {
  // In a fit group hardly a draw is weak. Where all of them are, there is an
  // end.
  constexpr int kMostDraws = 128;
  constexpr const char* kNoPublicValue =
      "Error calculating public part of shared secret key";
  for (int draw = 0; draw < kMostDraws; ++draw) {
    public_out = nullptr;
    private_out = bn_poor_random(4 * generator->len, source);
    if (private_out == nullptr) {
      return "Error getting a random number for the key exchange";
    }
    public_out = bn_power_mod(generator, private_out.get(), modulus);
    if (public_out == nullptr) return kNoPublicValue;
    reveal(public_out->data, static_cast<std::size_t>(public_out->len) *
                                 sizeof *public_out->data);

    const BigNumPtr two = bn_from_word(2);
    if (two == nullptr) return "Error allocating primary memory for key check";
    const BigNumPtr square = bn_power_mod(public_out.get(), two.get(), modulus);
    if (square == nullptr) {
      return "Error allocating secondary memory for key check";
    }
    if (!is_weak(square.get(), public_out.get())) return {};
    public_out = nullptr;
    private_out = nullptr;
  }
  return kNoPublicValue;
}

}  // namespace velprobe
