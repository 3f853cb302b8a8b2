#include <algorithm>

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

  // digit estimates the quotient of the limbs of a below end by the divisor,
  // shifted so that it ends two limbs below end. Three leading words over two:
  // with quotients below 2^64 and a divisor of 2^127 or more, what is left out
  // below them changes the quotient by less than 2^-62. So rounding down, the
  // estimate is right or too large by one, never too small.
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
  // The standard's count would ask first whether the word is zero.
  shift = __builtin_clzll(pair0);
  high = shifted(pair0, pair1, shift);
  low = shifted(pair1, pair2, shift);

  // floor((2^192 - 1) / high:low) - 2^64, by correction of the reciprocal of
  // the high word alone, for the division of three words by two of Moller and
  // Granlund. Adding a mask that is all ones subtracts one.
  reciprocal = reciprocal_of(high);
  std::uint64_t p = high * reciprocal + low;
  const std::uint64_t carried = mask_of(p < low);
  const std::uint64_t twice = carried & mask_of(p >= high);
  reciprocal += carried + twice;
  p -= (carried & high) + (twice & high);
  const Wide t = Wide{reciprocal} * low;
  const auto t_low = static_cast<std::uint64_t>(t);
  const auto t_high = static_cast<std::uint64_t>(t >> 64);
  p += t_high;
  const std::uint64_t over = mask_of(p < t_high);
  reciprocal += over + (over & mask_of(wide(p, t_low) >= wide(high, low)));
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
  const std::uint64_t capped = mask_of(wide(n2, n1) >= divisor);

  const Wide estimate = Wide{reciprocal} * n2 + wide(n2, n1);
  std::uint64_t q = static_cast<std::uint64_t>(estimate >> 64);
  Wide r = wide(n1 - q * high, n0) - Wide{q} * low - divisor;
  ++q;
  const std::uint64_t back = mask_of(static_cast<std::uint64_t>(r >> 64) >=
                                     static_cast<std::uint64_t>(estimate));
  q += back;
  r += divisor & wide(back, back);
  q -= mask_of(r >= divisor);
  return q | capped;
}

// add_if adds n limbs to a when the mask is all ones, and drops the carry.
void add_if(std::uint64_t mask, std::uint32_t* a, const std::uint32_t* limbs,
            std::uint64_t n) {
  std::uint64_t carry = 0;
  std::uint64_t i = 0;
  for (; i + 1 < n; i += 2) {
    carry = add_to_pair(a + i, load_pair(limbs + i) & mask, carry);
  }
  if (i < n) a[i] += static_cast<std::uint32_t>((limbs[i] & mask) + carry);
}

// or_digit stores no zero limb: the quotient may have no space for it.
void or_digit(std::uint32_t* quotient, std::uint64_t digit) {
  const auto low = static_cast<std::uint32_t>(digit);
  const auto high = static_cast<std::uint32_t>(digit >> kLimbBits);
  if (low != 0) quotient[0] |= low;
  if (high != 0) quotient[1] |= high;
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

}  // namespace

// Shift and subtract, 64 positions at a time: read as a binary number, the
// decisions for 64 positions in a row, 1 to subtract and 0 not to, are the
// digit a / (m << 32 * at), so one row subtracts for them all.
void base_divide(std::uint32_t* a, std::uint64_t a_len, const std::uint32_t* m,
                 std::uint64_t m_len, std::uint32_t* quotient) {
  if (a_len < m_len) return;
  const LeadingWords leading(m, m_len);

  // Before each round a < m << (32 * at + 64).
  for (std::uint64_t at = (a_len - m_len) / 2 * 2;; at -= 2) {
    const std::uint64_t end = at + m_len;
    std::uint64_t digit = leading.digit(a, a_len, end + 2);
    const std::uint64_t above = pair_below(a, a_len, end + 2);
    const std::uint64_t borrow = subtract_row(a + at, m, m_len, digit);
    const std::uint64_t too_large = mask_of(borrow > above);
    digit += too_large;
    // Hardly ever needed, and left out then where there is no secret: beside a
    // quotient. By mask, or the compiler might look at too_large first.
    const std::uint64_t is_remainder = mask_of(quotient == nullptr);
    if ((is_remainder | too_large) != 0) add_if(too_large, a + at, m, m_len);
    std::fill(a + end, a + std::min(end + 2, a_len), 0u);
    if (quotient != nullptr) or_digit(quotient + at, digit);
    if (at == 0) return;
  }
}

int base_mod_old_big(BigNum* a, const BigNum* b, BigNum* scratch) {
  if (base_is_zero(b) || !has_room_to_align(a, b, scratch)) return -1;
  base_divide(a->data, a->len, b->data, b->len, nullptr);
  base_normalize(a);
  VELPROBE_ASSERT(kBaseSource, a->len <= b->len);
  return 0;
}

}  // namespace velprobe
