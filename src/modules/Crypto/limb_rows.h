// Rows: the inner loops of products and of division, a run of limbs times one
// word. Internal to this folder.
#ifndef VELPROBE_MODULES_CRYPTO_LIMB_ROWS_H_
#define VELPROBE_MODULES_CRYPTO_LIMB_ROWS_H_

#include <cstdint>

#include "base_bignum_c.h"
#include "limb_pairs.h"

namespace velprobe {

// kBaseSource names the lower layer in the texts of its assertions, in
// whichever of its files they stand.
inline constexpr const char* kBaseSource = "modules/Crypto/c/base_bignum_c";

inline constexpr std::uint32_t kLimbBits = 32;

inline void base_normalize(BigNum* num) {
  num->len = base_significant_limbs(num->data, num->len);
}

// multiply_add returns the low half of pair * w + addend + carry and leaves the
// high one in carry. Two additions with their comparisons make shorter code
// than one sum of 128 bits.
inline std::uint64_t multiply_add(std::uint64_t pair, std::uint64_t w,
                                  std::uint64_t addend, std::uint64_t& carry) {
  const Wide product = Wide{pair} * w;
  std::uint64_t low = static_cast<std::uint64_t>(product) + addend;
  auto high = static_cast<std::uint64_t>(product >> 64) + (low < addend);
  low += carry;
  carry = high + (low < carry);
  return low;
}

// add_pair adds pair times w to two limbs of res; carry goes in and out.
inline void add_pair(std::uint32_t* res, std::uint64_t pair, std::uint64_t w,
                     std::uint64_t& carry) {
  store_pair(res, multiply_add(pair, w, load_pair(res), carry));
}

// add_to_pair adds pair and a carry of 0 or 1 to two limbs; returns the carry.
inline std::uint64_t add_to_pair(std::uint32_t* limbs, std::uint64_t pair,
                                 std::uint64_t carry) {
  std::uint64_t sum = load_pair(limbs) + pair;
  const std::uint64_t first = sum < pair;
  sum += carry;
  store_pair(limbs, sum);
  return first + (sum < carry);
}

// choose_limbs sets n limbs to the given ones when the mask is all ones.
inline void choose_limbs(std::uint64_t mask, std::uint32_t* limbs,
                         const std::uint32_t* given, std::uint64_t n) {
  for (std::uint64_t i = 0; i < n; ++i) {
    limbs[i] = chosen(mask, given[i], limbs[i]);
  }
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
inline std::uint64_t add_row(std::uint32_t* res, const std::uint32_t* limbs,
                             std::uint64_t n, std::uint64_t w) {
  return row<0>(res, limbs, n, w, 0);
}

// two_rows adds n limbs, an even number, times w0 + 2^64 * w1 to res, and
// returns the carry into res[n]: two multipliers in one pass halve the loads
// and stores. A triangle leaves out the first pair times w1.
template <bool kTriangle>
Wide two_rows(std::uint32_t* res, const std::uint32_t* limbs, std::uint64_t n,
              std::uint64_t w0, std::uint64_t w1) {
  std::uint64_t carry0 = 0;
  std::uint64_t carry1 = 0;
  add_pair(res, load_pair(limbs), w0, carry0);
  std::uint64_t before = kTriangle ? 0 : load_pair(limbs);
  for (std::uint64_t i = 2; i < n; i += 2) {
    const std::uint64_t pair = load_pair(limbs + i);
    const std::uint64_t sum =
        multiply_add(pair, w0, load_pair(res + i), carry0);
    store_pair(res + i, multiply_add(before, w1, sum, carry1));
    before = pair;
  }
  return Wide{before} * w1 + carry0 + carry1;
}

// subtract_row subtracts n limbs times w from res; returns the borrow from
// res[n]. With the complement c = 2^(32n) - 1 - limbs this is an addition:
// res - limbs * w = res + c * w + w - w * 2^(32n).
inline std::uint64_t subtract_row(std::uint32_t* res,
                                  const std::uint32_t* limbs, std::uint64_t n,
                                  std::uint64_t w) {
  return w - row<~std::uint64_t{0}>(res, limbs, n, w, w);
}

}  // namespace velprobe

#endif  // VELPROBE_MODULES_CRYPTO_LIMB_ROWS_H_
