#include <algorithm>
#include <bit>

#include "base_bignum_c.h"
#include "crypto_assert.h"
#include "limb_rows.h"

namespace velprobe {
namespace {

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
  base_normalize(a);
  VELPROBE_ASSERT(kBaseSource, a->len <= b->len);
  return 0;
}

void set_product(BigNum* res, const BigNum* lhs, const BigNum* rhs) {
  base_big_mul(res->data, lhs->data, lhs->len, rhs->data, rhs->len);
  res->len = lhs->len + rhs->len;
  base_normalize(res);
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
        VELPROBE_ASSERT(kBaseSource, res->size >= altbuf->len + mbuf->len);
        set_product(res, altbuf, mbuf);
        if (int rc = base_mod_old_big(res, modulus, leading, altbuf)) return rc;
      }
      // At bit 31 the mask is the whole limb: one squaring more than needed.
      const std::uint32_t higher = ~0u << (bit + 1) % kLimbBits;
      if (i + 1 == exponent->len && (limb & higher) == 0) return 0;

      base_assign(altbuf, mbuf);
      VELPROBE_ASSERT(kBaseSource, mbuf->size >= altbuf->len + altbuf->len);
      base_set_square(mbuf, altbuf);
      if (int rc = base_mod_old_big(mbuf, modulus, leading, altbuf)) return rc;
    }
  }
  return 0;
}

}  // namespace velprobe
