#include "base_bignum_c.h"

#include <algorithm>
#include <bit>
#include <cstdlib>

#include "crypto_assert.h"
#include "limb_rows.h"

namespace velprobe {
namespace {

// kTen19 is the largest power of ten in 64 bits; its top bit is set.
constexpr std::uint64_t kTen19 = 10'000'000'000'000'000'000u;
constexpr std::uint64_t kTen19Reciprocal = reciprocal_of(kTen19);

}  // namespace

std::uint64_t base_significant_limbs(const std::uint32_t* data,
                                     std::uint64_t n) {
  while (n > 0 && revealed(data[n - 1] == 0)) --n;
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
  // A shift that lacks capacity leaves a length beyond the size.
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
  for (std::uint64_t i = 0; i < n; ++i) {
    data[i] += w;
    w = data[i] < w ? 1 : 0;
  }
  return w;
}

std::uint32_t base_sub_word(std::uint32_t* data, std::uint64_t n,
                            std::uint32_t w) {
  for (std::uint64_t i = 0; i < n; ++i) {
    const std::uint32_t old = data[i];
    data[i] = old - w;
    w = old < w ? 1 : 0;
  }
  return w != 0 ? 1 : 0;
}

std::uint32_t base_big_add(std::uint32_t* a, std::uint64_t a_len,
                           const std::uint32_t* b, std::uint64_t b_len) {
  VELPROBE_ASSERT(kBaseSource, b_len <= a_len);
  std::uint64_t carry = 0;
  std::uint64_t i = 0;
  for (; i + 1 < b_len; i += 2) {
    carry = add_to_pair(a + i, load_pair(b + i), carry);
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
  VELPROBE_ASSERT(kBaseSource, b_len <= a_len);
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
  VELPROBE_ASSERT(kBaseSource, nbits < (32));
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
  VELPROBE_ASSERT(kBaseSource, nbits < (32));
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
  VELPROBE_ASSERT(kBaseSource, bit >= 0);
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
  VELPROBE_ASSERT(kBaseSource, !data[i]);
  data[i] = carry;
}

std::uint32_t base_div_word(std::uint32_t* data, std::uint64_t n,
                            std::uint32_t w) {
  VELPROBE_ASSERT(kBaseSource, w != 0);
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
  VELPROBE_ASSERT(kBaseSource, w != 0);
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
  const std::uint64_t paired = rhs_len % 2 == 0 && rhs_len > 0 ? lhs_len : 0;
  for (; i + 3 < paired; i += 4) {
    const Wide carry = two_rows<false>(
        res + i, rhs, rhs_len, load_pair(lhs + i), load_pair(lhs + i + 2));
    VELPROBE_ASSERT(kBaseSource, res[i + rhs_len] == 0);
    store_wide(res + i + rhs_len, carry);
  }
  for (; i + 1 < lhs_len; i += 2) {
    const std::uint64_t carry =
        add_row(res + i, rhs, rhs_len, load_pair(lhs + i));
    VELPROBE_ASSERT(kBaseSource, res[i + rhs_len] == 0);
    store_pair(res + i + rhs_len, carry);
  }
  if (i < lhs_len) {
    const std::uint64_t carry = add_row(res + i, rhs, rhs_len, lhs[i]);
    VELPROBE_ASSERT(kBaseSource, res[i + rhs_len] == 0);
    res[i + rhs_len] = static_cast<std::uint32_t>(carry);
  }
}

void base_big_square(std::uint32_t* res, const std::uint32_t* data,
                     std::uint64_t n) {
  std::fill(res, res + 2 * n, 0u);
  const std::uint64_t even = n - n % 2;

  // Each product of two different pairs once, all of them doubled, and then
  // the squares of the pairs.
  std::uint64_t at = 0;
  for (; at + 4 < even; at += 4) {
    const Wide carry =
        two_rows<true>(res + 2 * at + 2, data + at + 2, even - at - 2,
                       load_pair(data + at), load_pair(data + at + 2));
    store_wide(res + even + at, carry);
  }
  for (; at + 2 < even; at += 2) {
    const std::uint64_t carry = add_row(res + 2 * at + 2, data + at + 2,
                                        even - at - 2, load_pair(data + at));
    store_pair(res + even + at, carry);
  }
  std::uint64_t carry = 0;
  std::uint64_t doubled_out = 0;
  for (std::uint64_t i = 0; i < even; i += 2) {
    const std::uint64_t low = load_pair(res + 2 * i);
    const std::uint64_t high = load_pair(res + 2 * i + 2);
    const std::uint64_t pair = load_pair(data + i);
    const Wide square = Wide{pair} * pair;
    store_pair(res + 2 * i, low << 1 | doubled_out);
    store_pair(res + 2 * i + 2, high << 1 | low >> 63);
    carry = add_to_pair(res + 2 * i, static_cast<std::uint64_t>(square), carry);
    carry = add_to_pair(res + 2 * i + 2,
                        static_cast<std::uint64_t>(square >> 64), carry);
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
  base_normalize(res);
}

}  // namespace velprobe
