#include "base_bignum_c.h"

#include <algorithm>
#include <bit>
#include <cstdlib>

#include "crypto_assert.h"
#include "limb_pairs.h"

namespace velprobe {
namespace {

constexpr const char* kSource = "modules/Crypto/c/base_bignum_c";
constexpr std::uint32_t kLimbBits = 32;

// kTen19 is the largest power of ten in 64 bits; its top bit is set.
constexpr std::uint64_t kTen19 = 10'000'000'000'000'000'000u;
constexpr std::uint64_t kTen19Reciprocal = reciprocal_of(kTen19);

// add_pair adds pair times w to two limbs of res; carry goes in and out.
inline void add_pair(std::uint32_t* res, std::uint64_t pair, std::uint64_t w,
                     std::uint64_t& carry) {
  const Wide sum = Wide{pair} * w + load_pair(res) + carry;
  store_pair(res, static_cast<std::uint64_t>(sum));
  carry = static_cast<std::uint64_t>(sum >> 64);
}

// row adds n limbs, each XORed with the halves of kMask, times w and a carry to
// res; returns the carry into res[n].
template <std::uint64_t kMask>
std::uint64_t row(std::uint32_t* res, const std::uint32_t* limbs,
                  std::uint64_t n, std::uint64_t w, std::uint64_t carry) {
  std::uint64_t i = 0;
  for (; i + 7 < n; i += 8) {
    add_pair(res + i, load_pair(limbs + i) ^ kMask, w, carry);
    add_pair(res + i + 2, load_pair(limbs + i + 2) ^ kMask, w, carry);
    add_pair(res + i + 4, load_pair(limbs + i + 4) ^ kMask, w, carry);
    add_pair(res + i + 6, load_pair(limbs + i + 6) ^ kMask, w, carry);
  }
  for (; i + 1 < n; i += 2) {
    add_pair(res + i, load_pair(limbs + i) ^ kMask, w, carry);
  }
  if (i < n) {
    const std::uint32_t limb = limbs[i] ^ static_cast<std::uint32_t>(kMask);
    const Wide sum = Wide{limb} * w + res[i] + carry;
    res[i] = static_cast<std::uint32_t>(sum);
    carry = static_cast<std::uint64_t>(sum >> kLimbBits);
  }
  return carry;
}

// add_row adds n limbs times w to res; returns the carry into res[n].
std::uint64_t add_row(std::uint32_t* res, const std::uint32_t* limbs,
                      std::uint64_t n, std::uint64_t w) {
  return row<0>(res, limbs, n, w, 0);
}

// subtract_row subtracts n limbs times w from res; returns the borrow from
// res[n]. With the complement c = 2^(32n) - 1 - limbs this is an addition:
// res - limbs * w = res + c * w + w - w * 2^(32n).
std::uint64_t subtract_row(std::uint32_t* res, const std::uint32_t* limbs,
                           std::uint64_t n, std::uint64_t w) {
  return w - row<~std::uint64_t{0}>(res, limbs, n, w, w);
}

// pair_below gives limbs end - 2 and end - 1; limbs outside the array are zero.
std::uint64_t pair_below(const std::uint32_t* limbs, std::uint64_t n,
                         std::uint64_t end) {
  if (end >= 2 && end <= n) return load_pair(limbs + end - 2);
  const std::uint64_t high = end >= 1 && end <= n ? limbs[end - 1] : 0;
  const std::uint64_t low = end >= 2 && end - 1 <= n ? limbs[end - 2] : 0;
  return high << kLimbBits | low;
}

// below gives end - n, or 0 where that would be negative.
constexpr std::uint64_t below(std::uint64_t end, std::uint64_t n) {
  return end > n ? end - n : 0;
}

// shifted gives the upper 64 bits of high:low << shift, shift below 64.
constexpr std::uint64_t shifted(std::uint64_t high, std::uint64_t low,
                                int shift) {
  return high << shift | (low >> 1) >> (63 - shift);
}

// LeadingWords are the leading 128 bits of a divisor, shifted so that the top
// bit is set, and what estimating quotient digits by them needs.
struct LeadingWords {
  explicit LeadingWords(const std::uint32_t* m, std::uint64_t m_len);

  // digit estimates the quotient by the divisor, shifted so that it ends two
  // limbs below end, of the limbs of a below end. Never too small, and hardly
  // ever too large.
  std::uint64_t digit(const std::uint32_t* a, std::uint64_t a_len,
                      std::uint64_t end) const;

  int shift;
  std::uint64_t high;
  std::uint64_t low;
  std::uint64_t reciprocal;
};

LeadingWords::LeadingWords(const std::uint32_t* m, std::uint64_t m_len) {
  const std::uint64_t pair0 = pair_below(m, m_len, m_len);
  const std::uint64_t pair1 = pair_below(m, m_len, below(m_len, 2));
  const std::uint64_t pair2 = pair_below(m, m_len, below(m_len, 4));
  shift = std::countl_zero(pair0);
  high = shifted(pair0, pair1, shift);
  low = shifted(pair1, pair2, shift);

  // floor((2^192 - 1) / high:low) - 2^64, by correction of the reciprocal of
  // the high word alone, for the division of three words by two of Moller and
  // Granlund.
  reciprocal = reciprocal_of(high);
  std::uint64_t p = high * reciprocal + low;
  if (p < low) {
    --reciprocal;
    if (p >= high) {
      --reciprocal;
      p -= high;
    }
    p -= high;
  }
  const Wide t = Wide{reciprocal} * low;
  p += static_cast<std::uint64_t>(t >> 64);
  if (p < static_cast<std::uint64_t>(t >> 64)) {
    --reciprocal;
    if (wide(p, static_cast<std::uint64_t>(t)) >= wide(high, low)) --reciprocal;
  }
}

std::uint64_t LeadingWords::digit(const std::uint32_t* a, std::uint64_t a_len,
                                  std::uint64_t end) const {
  const std::uint64_t pair0 = pair_below(a, a_len, end);
  const std::uint64_t pair1 = pair_below(a, a_len, below(end, 2));
  const std::uint64_t pair2 = pair_below(a, a_len, below(end, 4));
  const std::uint64_t pair3 = pair_below(a, a_len, below(end, 6));
  const std::uint64_t n2 = shifted(pair0, pair1, shift);
  const std::uint64_t n1 = shifted(pair1, pair2, shift);
  const std::uint64_t n0 = shifted(pair2, pair3, shift);
  const Wide divisor = wide(high, low);
  if (wide(n2, n1) >= divisor) return ~std::uint64_t{0};

  const Wide estimate = Wide{reciprocal} * n2 + wide(n2, n1);
  std::uint64_t q = static_cast<std::uint64_t>(estimate >> 64);
  Wide r = wide(n1 - q * high, n0) - Wide{q} * low - divisor;
  ++q;
  if (static_cast<std::uint64_t>(r >> 64) >=
      static_cast<std::uint64_t>(estimate)) {
    --q;
    r += divisor;
  }
  if (r >= divisor) ++q;
  return q;
}

void normalize(BigNum* num) {
  num->len = base_significant_limbs(num->data, num->len);
}

}  // namespace

std::uint64_t base_significant_limbs(const std::uint32_t* data,
                                     std::uint64_t n) {
  while (n > 0 && data[n - 1] == 0) --n;
  return n;
}

std::uint64_t base_top_bit(const std::uint32_t* data, std::uint64_t n) {
  n = base_significant_limbs(data, n);
  if (n == 0) return 0;
  return kLimbBits * n - 1 -
         static_cast<std::uint64_t>(std::countl_zero(data[n - 1]));
}

std::uint64_t base_trailing_zeros(const std::uint32_t* data, std::uint64_t n) {
  for (std::uint64_t i = 0; i < n; ++i) {
    if (data[i] != 0) {
      return kLimbBits * i +
             static_cast<std::uint64_t>(std::countr_zero(data[i]));
    }
  }
  return 0;
}

int base_compare(const std::uint32_t* a, std::uint64_t a_len,
                 const std::uint32_t* b, std::uint64_t b_len) {
  if (a_len != b_len) return a_len < b_len ? -1 : 1;
  for (std::uint64_t i = a_len; i > 0; --i) {
    if (a[i - 1] != b[i - 1]) return a[i - 1] < b[i - 1] ? -1 : 1;
  }
  return 0;
}

void base_assign(BigNum* dst, const BigNum* src) {
  if (dst == src) return;
  std::copy(src->data, src->data + src->len, dst->data);
  // A shift without room leaves a length beyond the size.
  const std::uint64_t used = std::min(dst->len, dst->size);
  if (src->len < used) std::fill(dst->data + src->len, dst->data + used, 0u);
  dst->len = src->len;
}

std::uint32_t base_multiply_add(std::uint32_t lhs, std::uint32_t rhs,
                                std::uint32_t addend, std::uint32_t& carry) {
  constexpr std::uint32_t kHalf = 0xFFFF;
  const std::uint64_t low_low = std::uint64_t{lhs & kHalf} * (rhs & kHalf);
  const std::uint64_t low_high = std::uint64_t{lhs & kHalf} * (rhs >> 16);
  const std::uint64_t high_low = std::uint64_t{lhs >> 16} * (rhs & kHalf);
  const std::uint64_t high_high = std::uint64_t{lhs >> 16} * (rhs >> 16);

  std::uint64_t low = low_low + ((low_high & kHalf) << 16) +
                      ((high_low & kHalf) << 16) + addend + carry;
  const std::uint64_t high =
      high_high + (low_high >> 16) + (high_low >> 16) + (low >> kLimbBits);
  if (high >> kLimbBits != 0) std::abort();
  carry = static_cast<std::uint32_t>(high);
  return static_cast<std::uint32_t>(low);
}

std::uint32_t base_add_word(std::uint32_t* data, std::uint64_t n,
                            std::uint32_t w) {
  for (std::uint64_t i = 0; i < n && w != 0; ++i) {
    data[i] += w;
    w = data[i] < w ? 1 : 0;
  }
  return w;
}

std::uint32_t base_sub_word(std::uint32_t* data, std::uint64_t n,
                            std::uint32_t w) {
  for (std::uint64_t i = 0; i < n && w != 0; ++i) {
    const std::uint32_t old = data[i];
    data[i] = old - w;
    w = old < w ? 1 : 0;
  }
  return w != 0 ? 1 : 0;
}

std::uint32_t base_big_add(std::uint32_t* a, std::uint64_t a_len,
                           const std::uint32_t* b, std::uint64_t b_len) {
  VELPROBE_ASSERT(kSource, b_len <= a_len);
  std::uint64_t carry = 0;
  std::uint64_t i = 0;
  for (; i + 1 < b_len; i += 2) {
    const Wide sum = Wide{load_pair(a + i)} + load_pair(b + i) + carry;
    store_pair(a + i, static_cast<std::uint64_t>(sum));
    carry = static_cast<std::uint64_t>(sum >> 64);
  }
  if (i < b_len) {
    carry += std::uint64_t{a[i]} + b[i];
    a[i] = static_cast<std::uint32_t>(carry);
    carry >>= kLimbBits;
  }
  return base_add_word(a + b_len, a_len - b_len,
                       static_cast<std::uint32_t>(carry));
}

std::uint32_t base_big_subtract(std::uint32_t* a, std::uint64_t a_len,
                                const std::uint32_t* b, std::uint64_t b_len) {
  VELPROBE_ASSERT(kSource, b_len <= a_len);
  std::uint64_t borrow = 0;
  std::uint64_t i = 0;
  for (; i + 1 < b_len; i += 2) {
    const Wide difference = Wide{load_pair(a + i)} - load_pair(b + i) - borrow;
    store_pair(a + i, static_cast<std::uint64_t>(difference));
    borrow = static_cast<std::uint64_t>(difference >> 64) & 1;
  }
  if (i < b_len) {
    const std::uint64_t difference = std::uint64_t{a[i]} - b[i] - borrow;
    a[i] = static_cast<std::uint32_t>(difference);
    borrow = difference >> 63;
  }
  return base_sub_word(a + b_len, a_len - b_len,
                       static_cast<std::uint32_t>(borrow));
}

std::uint32_t base_shift_left_nbits_small(std::uint32_t* data, std::uint64_t n,
                                          std::uint32_t nbits) {
  VELPROBE_ASSERT(kSource, nbits < (32));
  std::uint64_t moved = 0;
  for (std::uint64_t i = 0; i < n; ++i) {
    moved |= std::uint64_t{data[i]} << nbits;
    data[i] = static_cast<std::uint32_t>(moved);
    moved >>= kLimbBits;
  }
  return static_cast<std::uint32_t>(moved);
}

void base_shift_right_nbits_small(std::uint32_t* data, std::uint64_t n,
                                  std::uint32_t nbits) {
  VELPROBE_ASSERT(kSource, nbits < (32));
  if (n == 0) return;
  for (std::uint64_t i = 0; i + 1 < n; ++i) {
    data[i] = static_cast<std::uint32_t>(load_pair(data + i) >> nbits);
  }
  data[n - 1] >>= nbits;
}

std::uint32_t base_shift_left1(std::uint32_t* data, std::uint64_t n) {
  return base_shift_left_nbits_small(data, n, 1);
}

void base_shift_right1(std::uint32_t* data, std::uint64_t n) {
  base_shift_right_nbits_small(data, n, 1);
}

void base_set_bit(std::uint32_t* data, std::int64_t bit) {
  VELPROBE_ASSERT(kSource, bit >= 0);
  data[bit / kLimbBits] |= std::uint32_t{1} << (bit % kLimbBits);
}

void base_mul_assign(std::uint32_t* data, std::uint64_t n, std::uint32_t w) {
  std::uint32_t carry = 0;
  std::uint64_t i = 0;
  for (; i + 1 < n; i += 2) {
    const Wide product = Wide{load_pair(data + i)} * w + carry;
    store_pair(data + i, static_cast<std::uint64_t>(product));
    carry = static_cast<std::uint32_t>(product >> 64);
  }
  for (; i < n; ++i) data[i] = base_multiply_add(data[i], w, 0, carry);
  VELPROBE_ASSERT(kSource, !data[i]);
  data[i] = carry;
}

std::uint32_t base_div_word(std::uint32_t* data, std::uint64_t n,
                            std::uint32_t w) {
  VELPROBE_ASSERT(kSource, w != 0);
  std::uint64_t remainder = 0;
  for (std::uint64_t i = n; i > 0; --i) {
    const std::uint64_t dividend = remainder << kLimbBits | data[i - 1];
    data[i - 1] = static_cast<std::uint32_t>(dividend / w);
    remainder = dividend % w;
  }
  return static_cast<std::uint32_t>(remainder);
}

std::uint32_t base_mod_word(const std::uint32_t* data, std::uint64_t n,
                            std::uint32_t w) {
  VELPROBE_ASSERT(kSource, w != 0);
  std::uint64_t remainder = 0;
  for (std::uint64_t i = n; i > 0; --i) {
    remainder = (remainder << kLimbBits | data[i - 1]) % w;
  }
  return static_cast<std::uint32_t>(remainder);
}

std::uint64_t base_div_ten19(std::uint32_t* data, std::uint64_t n) {
  std::uint64_t remainder = 0;
  if (n % 2 != 0) {
    remainder = data[n - 1];
    data[n - 1] = 0;
  }
  for (std::uint64_t i = n / 2; i > 0; --i) {
    std::uint32_t* pair = data + 2 * (i - 1);
    store_pair(pair, divide_pair(remainder, load_pair(pair), kTen19,
                                 kTen19Reciprocal, remainder));
  }
  return remainder;
}

void base_big_mul(std::uint32_t* res, const std::uint32_t* lhs,
                  std::uint64_t lhs_len, const std::uint32_t* rhs,
                  std::uint64_t rhs_len) {
  std::fill(res, res + lhs_len + rhs_len, 0u);
  std::uint64_t i = 0;
  for (; i + 1 < lhs_len; i += 2) {
    const std::uint64_t carry =
        add_row(res + i, rhs, rhs_len, load_pair(lhs + i));
    VELPROBE_ASSERT(kSource, res[i + rhs_len] == 0);
    store_pair(res + i + rhs_len, carry);
  }
  if (i < lhs_len) {
    const std::uint64_t carry = add_row(res + i, rhs, rhs_len, lhs[i]);
    VELPROBE_ASSERT(kSource, res[i + rhs_len] == 0);
    res[i + rhs_len] = static_cast<std::uint32_t>(carry);
  }
}

void base_big_square(std::uint32_t* res, const std::uint32_t* data,
                     std::uint64_t n) {
  std::fill(res, res + 2 * n, 0u);
  const std::uint64_t even = n - n % 2;

  // Each product of two different pairs once, all of them doubled, and then
  // the squares of the pairs.
  for (std::uint64_t i = 0; i + 2 < even; i += 2) {
    const std::uint64_t carry = add_row(res + 2 * i + 2, data + i + 2,
                                        even - i - 2, load_pair(data + i));
    store_pair(res + even + i, carry);
  }
  std::uint64_t carry = 0;
  std::uint64_t doubled_out = 0;
  for (std::uint64_t i = 0; i < even; i += 2) {
    const std::uint64_t low = load_pair(res + 2 * i);
    const std::uint64_t high = load_pair(res + 2 * i + 2);
    const Wide square = Wide{load_pair(data + i)} * load_pair(data + i);
    const Wide sum = Wide{low << 1 | doubled_out} +
                     static_cast<std::uint64_t>(square) + carry;
    const Wide next = Wide{high << 1 | low >> 63} +
                      static_cast<std::uint64_t>(square >> 64) +
                      static_cast<std::uint64_t>(sum >> 64);
    store_pair(res + 2 * i, static_cast<std::uint64_t>(sum));
    store_pair(res + 2 * i + 2, static_cast<std::uint64_t>(next));
    carry = static_cast<std::uint64_t>(next >> 64);
    doubled_out = high >> 63;
  }
  if (even == n) return;

  // The odd limb on top: twice its product with the rest, and its square.
  const std::uint64_t top = data[even];
  const std::uint64_t row_carry = add_row(res + even, data, even, 2 * top);
  store_pair(res + 2 * even, row_carry + top * top);
}

void base_set_square(BigNum* res, const BigNum* num) {
  const std::uint64_t len = 2 * num->len;
  base_big_square(res->data, num->data, num->len);
  if (len < res->len) std::fill(res->data + len, res->data + res->len, 0u);
  res->len = len;
  normalize(res);
}

namespace {

// divide is base_divide with the divisor's leading words known.
void divide(std::uint32_t* a, std::uint64_t a_len, const std::uint32_t* m,
            std::uint64_t m_len, const LeadingWords& leading,
            std::uint32_t* quotient) {
  if (a_len < m_len) return;

  // Shift and subtract, 64 positions at a time: read as a binary number, the
  // decisions for 64 positions in a row, 1 to subtract and 0 not to, are the
  // digit a / (m << 32 * at), so one row subtracts for them all.
  // Before each round a < m << (32 * at + 64).
  for (std::uint64_t at = (a_len - m_len) / 2 * 2;; at -= 2) {
    const std::uint64_t end = at + m_len;
    std::uint64_t digit = leading.digit(a, a_len, end + 2);
    if (digit != 0) {
      const std::uint64_t above = pair_below(a, a_len, end + 2);
      std::uint64_t borrow = subtract_row(a + at, m, m_len, digit);
      while (borrow > above) {
        --digit;
        borrow -= base_big_add(a + at, m_len, m, m_len);
      }
      std::fill(a + end, a + std::min(end + 2, a_len), 0u);
      if (quotient != nullptr && digit != 0) {
        quotient[at] |= static_cast<std::uint32_t>(digit);
        if (digit >> kLimbBits != 0) {
          quotient[at + 1] |= static_cast<std::uint32_t>(digit >> kLimbBits);
        }
      }
    }
    if (at == 0) return;
  }
}

// has_room_to_align is true when scratch can hold b shifted left until it is at
// least as large as a: as many limbs as a has, and one more where a bit count
// equal to that of a, filling the top limb, still leaves b below a.
bool has_room_to_align(const BigNum* a, const BigNum* b, BigNum* scratch) {
  if (scratch->size < b->len || scratch->size < a->len) return false;
  if (scratch->size > a->len || a->len == 0) return true;
  const std::uint64_t a_top = base_top_bit(a->data, a->len);
  const std::uint64_t b_top = base_top_bit(b->data, b->len);
  if (a_top < b_top || a_top % kLimbBits != kLimbBits - 1) return true;

  const std::uint64_t limbs = (a_top - b_top) / kLimbBits;
  std::fill(scratch->data, scratch->data + limbs, 0u);
  std::copy(b->data, b->data + b->len, scratch->data + limbs);
  std::fill(scratch->data + limbs + b->len, scratch->data + scratch->size, 0u);
  scratch->len = a->len;
  base_shift_left_nbits_small(
      scratch->data, scratch->len,
      static_cast<std::uint32_t>((a_top - b_top) % kLimbBits));
  return base_compare(scratch->data, scratch->len, a->data, a->len) >= 0;
}

// base_mod_old_big with the modulus's leading words known; b is not zero.
int base_mod_old_big(BigNum* a, const BigNum* b, const LeadingWords& leading,
                     BigNum* scratch) {
  if (!has_room_to_align(a, b, scratch)) return -1;
  divide(a->data, a->len, b->data, b->len, leading, nullptr);
  normalize(a);
  VELPROBE_ASSERT(kSource, a->len <= b->len);
  return 0;
}

void set_product(BigNum* res, const BigNum* lhs, const BigNum* rhs) {
  base_big_mul(res->data, lhs->data, lhs->len, rhs->data, rhs->len);
  res->len = lhs->len + rhs->len;
  normalize(res);
}

void set_one(BigNum* num) {
  std::fill(num->data, num->data + num->len, 0u);
  num->data[0] = 1;
  num->len = 1;
}

}  // namespace

void base_divide(std::uint32_t* a, std::uint64_t a_len, const std::uint32_t* m,
                 std::uint64_t m_len, std::uint32_t* quotient) {
  divide(a, a_len, m, m_len, LeadingWords(m, m_len), quotient);
}

int base_mod_old_big(BigNum* a, const BigNum* b, BigNum* scratch) {
  if (base_is_zero(b)) return -1;
  return base_mod_old_big(a, b, LeadingWords(b->data, b->len), scratch);
}

int base_power_modulo(BigNum* res, const BigNum* base, const BigNum* exponent,
                      const BigNum* modulus, BigNum* mbuf, BigNum* altbuf) {
  const std::uint64_t longest = std::max(base->len, modulus->len);
  if (base_is_zero(modulus) || mbuf->size < base->len ||
      res->size < longest + modulus->len || altbuf->size <= 2 * longest ||
      altbuf->size > mbuf->size) {
    return -1;
  }
  set_one(res);
  base_assign(mbuf, base);

  // Before each bit: the result is res * mbuf^(bits not yet seen).
  const LeadingWords leading(modulus->data, modulus->len);
  for (std::uint64_t i = 0; i < exponent->len; ++i) {
    const std::uint32_t limb = exponent->data[i];
    for (std::uint32_t bit = 0; bit < kLimbBits; ++bit) {
      if ((limb >> bit & 1) != 0) {
        base_assign(altbuf, res);
        VELPROBE_ASSERT(kSource, res->size >= altbuf->len + mbuf->len);
        set_product(res, altbuf, mbuf);
        if (int rc = base_mod_old_big(res, modulus, leading, altbuf)) return rc;
      }
      // At bit 31 the mask is the whole limb: one squaring more than needed.
      const std::uint32_t higher = ~0u << (bit + 1) % kLimbBits;
      if (i + 1 == exponent->len && (limb & higher) == 0) return 0;

      base_assign(altbuf, mbuf);
      VELPROBE_ASSERT(kSource, mbuf->size >= altbuf->len + altbuf->len);
      base_set_square(mbuf, altbuf);
      if (int rc = base_mod_old_big(mbuf, modulus, leading, altbuf)) return rc;
    }
  }
  return 0;
}

}  // namespace velprobe
