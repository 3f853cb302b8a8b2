#include <algorithm>

#include "base_bignum_c.h"
#include "bignum.h"
#include "crypto_assert.h"
#include "wipe.h"

namespace velprobe {
namespace {

constexpr const char* kSource = "modules/Crypto/c/bignum";
constexpr std::uint64_t kLimbBits = 32;

// clear_limbs makes num zero; only the limbs in use can be other than zero.
void clear_limbs(BigNum* num) {
  std::fill(num->data, num->data + std::min(num->len, num->size), 0u);
  num->len = 0;
}

}  // namespace

int bn_add(BigNum* a, const BigNum* b) {
  const std::uint64_t longest = std::max(a->len, b->len);
  if (a->size <= longest) return -1;
  base_big_add(a->data, longest + 1, b->data, b->len);
  a->len = longest + 1;
  bn_normalize(a);
  return 0;
}

void bn_add_word(BigNum* a, std::uint32_t w) {
  const std::uint32_t carry = base_add_word(a->data, a->len, w);
  if (a->len < a->size) a->data[a->len] = carry;
  ++a->len;
  bn_normalize(a);
}

std::uint32_t bn_sub(BigNum* a, const BigNum* b) {
  const std::uint32_t borrow =
      base_big_subtract(a->data, a->len, b->data, b->len);
  bn_normalize(a);
  return borrow;
}

std::uint32_t bn_sub_word(BigNum* a, std::uint32_t w) {
  const std::uint32_t borrow = base_sub_word(a->data, a->len, w);
  bn_normalize(a);
  return borrow;
}

void bn_or(BigNum* a, const BigNum* b) {
  VELPROBE_ASSERT(kSource, a->size >= b->len);
  for (std::uint64_t i = 0; i < b->len; ++i) a->data[i] |= b->data[i];
  a->len = std::max(a->len, b->len);
  bn_normalize(a);
}

int bn_shift_left(BigNum* a, std::uint64_t n) {
  const std::uint64_t used = base_significant_limbs(a->data, a->len);
  const std::uint64_t top = base_top_bit(a->data, used);
  const std::uint64_t limbs = n / kLimbBits;
  const auto nbits = static_cast<std::uint32_t>(n % kLimbBits);
  a->len = top / kLimbBits + limbs + (top % kLimbBits + nbits) / kLimbBits + 1;
  if (a->len > a->size) return -1;
  if (used == 0) {
    bn_normalize(a);
    return 0;
  }
  std::copy_backward(a->data, a->data + used, a->data + used + limbs);
  std::fill(a->data, a->data + limbs, 0u);
  base_shift_left_nbits_small(a->data + limbs, a->len - limbs, nbits);
  bn_normalize(a);
  return 0;
}

int bn_shift_left1(BigNum* a) {
  if (a->len > 0 && a->data[a->len - 1] >> (kLimbBits - 1) != 0) ++a->len;
  if (a->len > a->size) return -1;
  base_shift_left1(a->data, a->len);
  bn_normalize(a);
  return 0;
}

void bn_shift_right(BigNum* a, std::uint64_t n) {
  const std::uint64_t limbs = std::min(n / kLimbBits, a->len);
  const std::uint64_t kept = a->len - limbs;
  std::copy(a->data + limbs, a->data + a->len, a->data);
  std::fill(a->data + kept, a->data + a->len, 0u);
  base_shift_right_nbits_small(a->data, kept,
                               static_cast<std::uint32_t>(n % kLimbBits));
  bn_normalize(a);
}

void bn_shift_right1(BigNum* a) {
  base_shift_right1(a->data, a->len);
  bn_normalize(a);
}

int bn_set_power_of_two(BigNum* a, std::uint64_t b) {
  if (b / kLimbBits >= a->size) return -1;
  clear_limbs(a);
  base_set_bit(a->data, static_cast<std::int64_t>(b));
  a->len = b / kLimbBits + 1;
  bn_normalize(a);
  return 0;
}

int bn_set_word(BigNum* a, std::uint32_t w) {
  if (a->size == 0) return -1;
  clear_limbs(a);
  a->data[0] = w;
  a->len = 1;
  return 0;
}

int bn_copy_into(BigNum* dst, const BigNum* src) {
  if (dst->size < src->len) return -1;
  base_assign(dst, src);
  bn_normalize(dst);
  return 0;
}

std::uint64_t bn_strip_twos(const BigNum* a, BigNumPtr& out) {
  out = bn_dup(a);
  if (out == nullptr) return 0;
  const std::uint64_t count = base_trailing_zeros(a->data, a->len);
  bn_shift_right(out.get(), count);
  return count;
}

int bn_mod(BigNum* a, const BigNum* m, BigNum* scratch) {
  if (base_is_zero(m) || scratch->size < m->len || scratch->size < a->len) {
    return -1;
  }
  base_divide(a->data, a->len, m->data, m->len, nullptr);
  bn_normalize(a);
  return 0;
}

int bn_mod_into(BigNum* result, const BigNum* a, const BigNum* m,
                BigNum* scratch) {
  if (base_is_zero(m) || scratch->size < m->len || scratch->size < a->len ||
      result->size < a->len) {
    return -1;
  }
  base_assign(result, a);
  return bn_mod(result, m, scratch);
}

int bn_or_quotient(BigNum* result, const BigNum* a, const BigNum* b) {
  if (base_is_zero(b)) return -1;
  if (bn_less(a, b)) return 0;
  // Without its low limbs b is as long as a: the quotient's top limb is there
  // exactly when what is left of a is not below b.
  std::uint64_t needed = a->len - b->len;
  if (base_compare(a->data + needed, b->len, b->data, b->len) >= 0) ++needed;
  if (result->size < needed) return -1;

  BigNumPtr remainder = bn_dup(a);
  if (remainder == nullptr) return -1;
  base_divide(remainder->data, remainder->len, b->data, b->len, result->data);
  result->len = std::max(result->len, needed);
  bn_normalize(result);
  return 0;
}

BigNumPtr bn_mul(const BigNum* a, const BigNum* b) {
  BigNumPtr product = bn_new(0, a->len + b->len);
  if (product == nullptr) return nullptr;
  base_big_mul(product->data, a->data, a->len, b->data, b->len);
  product->len = a->len + b->len;
  bn_normalize(product.get());
  return product;
}

BigNumPtr bn_power_of_two(std::uint64_t b) {
  BigNumPtr power = bn_new(0, b / kLimbBits + 1);
  if (power == nullptr || bn_set_power_of_two(power.get(), b) != 0) {
    return nullptr;
  }
  return power;
}

BigNumPtr bn_div(const BigNum* a, const BigNum* b) {
  BigNumPtr quotient = bn_new(0, a->len);
  if (quotient == nullptr || bn_or_quotient(quotient.get(), a, b) != 0) {
    return nullptr;
  }
  return quotient;
}

BigNumPtr bn_power_mod(const BigNum* base, const BigNum* exponent,
                       const BigNum* modulus) {
  const ClearsTraces clears_traces;
  const std::uint64_t longest = std::max(base->len, modulus->len);
  const BigNumPtr altbuf = bn_new(0, 2 * longest + 1);
  if (altbuf == nullptr) return nullptr;
  const BigNumPtr mbuf = bn_new(0, altbuf->size);
  BigNumPtr res = bn_new(0, longest + modulus->len);
  if (mbuf == nullptr || res == nullptr ||
      base_power_modulo(res.get(), base, exponent, modulus, mbuf.get(),
                        altbuf.get()) != 0) {
    return nullptr;
  }
  return res;
}

Text bn_to_decimal(const BigNum* num) {
  constexpr std::size_t kDigitsAtOnce = 19;
  const BigNumPtr rest = bn_dup(num);
  if (rest == nullptr) return nullptr;
  // A limb has fewer than 10 digits, and the last group may be nearly empty.
  if (num->len > SIZE_MAX / 20) return nullptr;
  const std::size_t capacity =
      10 * static_cast<std::size_t>(num->len) + kDigitsAtOnce;
  const Text reversed = new_text(capacity);
  if (reversed == nullptr) return nullptr;

  std::size_t count = 0;
  for (std::uint64_t len = rest->len; len > 0;
       len = base_significant_limbs(rest->data, len)) {
    std::uint64_t group = base_div_ten19(rest->data, len);
    for (std::size_t i = 0; i < kDigitsAtOnce; ++i, group /= 10) {
      reversed[count++] = static_cast<char>('0' + group % 10);
    }
  }
  while (count > 0 && reversed[count - 1] == '0') --count;
  if (count == 0) reversed[count++] = '0';

  Text digits = new_text(count);
  if (digits == nullptr) return nullptr;
  std::reverse_copy(reversed.get(), reversed.get() + count, digits.get());
  wipe_memory(reversed.get(), capacity);
  return digits;
}

}  // namespace velprobe
