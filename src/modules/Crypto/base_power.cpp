// Modular exponentiation: the right-to-left binary method with a product for
// every bit of the exponent, taken or not by mask, so that neither branches nor
// addresses depend on what the numbers are.
#include <algorithm>

#include "base_bignum_c.h"
#include "crypto_assert.h"
#include "limb_rows.h"
#include "wipe.h"

namespace velprobe {
namespace {

// negative_inverse gives -1 / m modulo 2^64. An odd m is its own inverse modulo
// 8, and each step doubles the number of right bits.
constexpr std::uint64_t negative_inverse(std::uint64_t m) {
  std::uint64_t x = m;
  for (int bits = 3; bits < 64; bits *= 2) x *= 2 - m * x;
  return 0 - x;
}

// Modulus reduces products of two numbers of its own length. For an odd modulus
// that is Montgomery's reduction, which divides by R = 2^(32 * len) on the way
// and works from the lowest limb upwards: no digit is ever estimated. An even
// one has no inverse modulo R, and is divided by.
class Modulus {
 public:
  explicit Modulus(const BigNum* modulus)
      : limbs_(modulus->data),
        len_(modulus->len),
        is_odd_(revealed(limbs_[0] % 2 != 0)),
        inverse_(negative_inverse(len_ > 1 ? load_pair(limbs_) : limbs_[0])) {}

  std::uint64_t len() const { return len_; }

  // set_factor sets num to the number that stands for base in the products:
  // base * R, reduced, or base, reduced.
  void set_factor(BigNum* num, const BigNum* base) const;

  // reduce turns the 2 * len limbs of a product into a number of len limbs
  // below the modulus; what the upper limbs hold then is of no use.
  void reduce(std::uint32_t* product) const;

 private:
  std::uint64_t add_multiples(std::uint32_t* product) const;
  void subtract_once(std::uint32_t* product, std::uint64_t carry) const;

  const std::uint32_t* limbs_;
  std::uint64_t len_;
  bool is_odd_;
  std::uint64_t inverse_;
};

void clear(BigNum* num) {
  std::fill(num->data, num->data + std::min(num->len, num->size), 0u);
}

void Modulus::set_factor(BigNum* num, const BigNum* base) const {
  const std::uint64_t shift = is_odd_ ? len_ : 0;
  clear(num);
  std::copy(base->data, base->data + base->len, num->data + shift);
  base_divide(num->data, base->len + shift, limbs_, len_, nullptr);
}

// add_multiples adds multiples of the modulus until the lower half is zero, a
// pair at a time; returns the carry out of the upper half.
std::uint64_t Modulus::add_multiples(std::uint32_t* product) const {
  std::uint64_t carry = 0;
  std::uint64_t i = 0;
  for (const std::uint64_t paired = len_ % 2 == 0 ? len_ : 0; i + 3 < paired;
       i += 4) {
    // The second multiplier sees what the first one leaves in its pair.
    const std::uint64_t pair = load_pair(product + i);
    const std::uint64_t q0 = pair * inverse_;
    const Wide first = Wide{q0} * load_pair(limbs_) + pair;
    const std::uint64_t second = load_pair(product + i + 2) +
                                 q0 * load_pair(limbs_ + 2) +
                                 static_cast<std::uint64_t>(first >> 64);
    const Wide rows =
        two_rows<false>(product + i, limbs_, len_, q0, second * inverse_);
    std::uint32_t* above = product + i + len_;
    carry = add_to_pair(above, static_cast<std::uint64_t>(rows), carry);
    carry =
        add_to_pair(above + 2, static_cast<std::uint64_t>(rows >> 64), carry);
  }
  for (; i + 1 < len_; i += 2) {
    const std::uint64_t q = load_pair(product + i) * inverse_;
    const std::uint64_t row = add_row(product + i, limbs_, len_, q);
    carry = add_to_pair(product + i + len_, row, carry);
  }
  if (i == len_) return carry;
  const auto q = static_cast<std::uint32_t>(product[i] * inverse_);
  const std::uint64_t row = add_row(product + i, limbs_, len_, q);
  const std::uint64_t top = row + product[i + len_] + carry;
  product[i + len_] = static_cast<std::uint32_t>(top);
  return top >> kLimbBits;
}

// subtract_once brings the upper half, with carry above it below twice the
// modulus, down into the lower half.
void Modulus::subtract_once(std::uint32_t* product, std::uint64_t carry) const {
  const std::uint32_t* upper = product + len_;
  std::uint64_t borrow = 0;
  std::uint64_t i = 0;
  for (; i + 1 < len_; i += 2) {
    const Wide difference =
        Wide{load_pair(upper + i)} - load_pair(limbs_ + i) - borrow;
    store_pair(product + i, static_cast<std::uint64_t>(difference));
    borrow = static_cast<std::uint64_t>(difference >> 64) & 1;
  }
  if (i < len_) {
    const std::uint64_t difference =
        std::uint64_t{upper[i]} - limbs_[i] - borrow;
    product[i] = static_cast<std::uint32_t>(difference);
    borrow = difference >> 63;
  }
  choose_limbs(mask_of(borrow & (carry ^ 1)), product, upper, len_);
}

void Modulus::reduce(std::uint32_t* product) const {
  if (is_odd_) {
    subtract_once(product, add_multiples(product));
  } else {
    base_divide(product, 2 * len_, limbs_, len_, nullptr);
  }
}

// finish leaves in num the limbs below len; above them are those of products.
void finish(BigNum* num, std::uint64_t len, std::uint64_t used) {
  wipe_memory(num->data + len,
              static_cast<std::size_t>(used - len) * sizeof *num->data);
  num->len = len;
  base_normalize(num);
}

// multiply sets res to res * mbuf where the mask is all ones. Without R in res,
// Montgomery's division by R leaves none in the product either.
void multiply(const Modulus& modulus, BigNum* res, const BigNum* mbuf,
              BigNum* altbuf, std::uint64_t mask) {
  std::copy(res->data, res->data + res->len, altbuf->data);
  base_big_mul(res->data, altbuf->data, altbuf->len, mbuf->data, mbuf->len);
  modulus.reduce(res->data);
  choose_limbs(~mask, res->data, altbuf->data, altbuf->len);
}

void square(const Modulus& modulus, BigNum* mbuf, BigNum* altbuf) {
  std::copy(mbuf->data, mbuf->data + mbuf->len, altbuf->data);
  base_big_square(mbuf->data, altbuf->data, altbuf->len);
  modulus.reduce(mbuf->data);
}

}  // namespace

int base_power_modulo(BigNum* res, const BigNum* base, const BigNum* exponent,
                      const BigNum* modulus, BigNum* mbuf, BigNum* altbuf) {
  const std::uint64_t longest = std::max(base->len, modulus->len);
  if (base_is_zero(modulus) || mbuf->size < base->len ||
      res->size < longest + modulus->len || altbuf->size <= 2 * longest ||
      altbuf->size > mbuf->size) {
    return -1;
  }
  const Modulus reduction(modulus);
  const std::uint64_t len = modulus->len;
  clear(res);
  clear(altbuf);
  res->data[0] = 1;
  reduction.set_factor(mbuf, base);
  res->len = mbuf->len = altbuf->len = len;

  // Before each bit: the result is res * mbuf^(bits not yet seen).
  bool is_done = false;
  for (std::uint64_t i = 0; i < exponent->len && !is_done; ++i) {
    const std::uint32_t limb = exponent->data[i];
    for (std::uint32_t bit = 0; bit < kLimbBits; ++bit) {
      VELPROBE_ASSERT(kBaseSource, res->size >= altbuf->len + mbuf->len);
      multiply(reduction, res, mbuf, altbuf, mask_of(limb >> bit & 1));
      // At bit 31 the mask is the whole limb: one squaring more than needed.
      const std::uint32_t higher = ~0u << (bit + 1) % kLimbBits;
      is_done = i + 1 == exponent->len && revealed((limb & higher) == 0);
      if (is_done) break;
      VELPROBE_ASSERT(kBaseSource, mbuf->size >= altbuf->len + altbuf->len);
      square(reduction, mbuf, altbuf);
    }
  }
  finish(res, len, 2 * len);
  finish(altbuf, 0, len);
  finish(mbuf, 0, std::max(base->len + len, 2 * len));
  return 0;
}

}  // namespace velprobe
