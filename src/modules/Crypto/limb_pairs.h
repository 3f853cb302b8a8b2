// Two limbs at a time: how the limb routines use the full width of a 64-bit
// machine on arrays of 32-bit limbs.
#ifndef VELPROBE_MODULES_CRYPTO_LIMB_PAIRS_H_
#define VELPROBE_MODULES_CRYPTO_LIMB_PAIRS_H_

#include <bit>
#include <cstdint>
#include <cstring>

#include "constant_time.h"

namespace velprobe {

#if defined(__SIZEOF_INT128__) && !defined(VELPROBE_OWN_WIDE)

__extension__ using Wide = unsigned __int128;

#else

// Wide is an unsigned number of 128 bits where the compiler has none. Sums,
// differences and products wrap; no operation takes a branch.
struct Wide {
  std::uint64_t low = 0;
  std::uint64_t high = 0;

  explicit constexpr operator std::uint64_t() const { return low; }
  explicit constexpr operator std::uint32_t() const {
    return static_cast<std::uint32_t>(low);
  }

  friend constexpr Wide operator+(Wide a, Wide b) {
    const std::uint64_t low = a.low + b.low;
    return {low, a.high + b.high + (low < b.low)};
  }
  friend constexpr Wide operator~(Wide a) { return {~a.low, ~a.high}; }
  friend constexpr Wide operator-(Wide a, Wide b) {
    return {a.low - b.low, a.high - b.high - (a.low < b.low)};
  }
  friend constexpr Wide operator*(Wide a, std::uint64_t b) {
    constexpr std::uint64_t kHalf = 0xffffffff;
    const std::uint64_t low_low = (a.low & kHalf) * (b & kHalf);
    const std::uint64_t low_high = (a.low & kHalf) * (b >> 32);
    const std::uint64_t high_low = (a.low >> 32) * (b & kHalf);
    const std::uint64_t middle =
        (low_low >> 32) + (low_high & kHalf) + (high_low & kHalf);
    return {middle << 32 | (low_low & kHalf),
            a.high * b + (a.low >> 32) * (b >> 32) + (low_high >> 32) +
                (high_low >> 32) + (middle >> 32)};
  }
  friend constexpr Wide operator&(Wide a, Wide b) {
    return {a.low & b.low, a.high & b.high};
  }
  friend constexpr Wide operator|(Wide a, Wide b) {
    return {a.low | b.low, a.high | b.high};
  }
  // Shifts by up to 127 bits, but not by none.
  friend constexpr Wide operator<<(Wide a, int by) {
    if (by >= 64) return {0, a.low << (by - 64)};
    return {a.low << by, a.high << by | a.low >> (64 - by)};
  }
  friend constexpr Wide operator>>(Wide a, int by) {
    if (by >= 64) return {a.high >> (by - 64), 0};
    return {a.low >> by | a.high << (64 - by), a.high >> by};
  }
  friend constexpr bool operator>=(Wide a, Wide b) {
    return ((a.high > b.high) | ((a.high == b.high) & (a.low >= b.low))) != 0;
  }

  friend constexpr Wide operator+(Wide a, std::uint64_t b) {
    return a + Wide{b, 0};
  }
  friend constexpr Wide operator-(Wide a, std::uint64_t b) {
    return a - Wide{b, 0};
  }
  constexpr Wide& operator+=(Wide b) { return *this = *this + b; }
  constexpr Wide& operator-=(Wide b) { return *this = *this - b; }
};

#endif

// load_pair and store_pair are one 64-bit access where the byte order allows.
inline std::uint64_t load_pair(const std::uint32_t* limbs) {
  if constexpr (std::endian::native == std::endian::little) {
    std::uint64_t pair;
    std::memcpy(&pair, limbs, sizeof pair);
    return pair;
  }
  return limbs[0] | std::uint64_t{limbs[1]} << 32;
}

inline void store_pair(std::uint32_t* limbs, std::uint64_t pair) {
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(limbs, &pair, sizeof pair);
    return;
  }
  limbs[0] = static_cast<std::uint32_t>(pair);
  limbs[1] = static_cast<std::uint32_t>(pair >> 32);
}

constexpr Wide wide(std::uint64_t high, std::uint64_t low) {
  return Wide{high} << 64 | Wide{low};
}

inline void store_wide(std::uint32_t* limbs, Wide value) {
  store_pair(limbs, static_cast<std::uint64_t>(value));
  store_pair(limbs + 2, static_cast<std::uint64_t>(value >> 64));
}

// reciprocal_of gives floor((2^128 - 1) / d) - 2^64 for a d whose top bit is
// set: with it a division becomes two multiplications (Moller and Granlund,
// "Improved division by invariant integers", 2011). Found without a division
// instruction, whose time depends on its operands.
constexpr std::uint64_t reciprocal_of(std::uint64_t d) {
  // x approaches 2^127 / d. The line 3 * 2^63 - d is at most an eighth off; a
  // step of Newton's squares the relative error, so five of them leave only
  // their own rounding.
  std::uint64_t x = (std::uint64_t{1} << 63) + ~d;
  for (int step = 0; step < 5; ++step) {
    const Wide product = Wide{d} * x;
    const std::uint64_t factor = 0 - static_cast<std::uint64_t>(product >> 64);
    x = static_cast<std::uint64_t>(Wide{x} * factor >> 63);
  }
  // 2x is the quotient to a few units; from safely below it, the rest holds d
  // as many times more. Products wrap at 2^128, the rest is small.
  Wide quotient = Wide{x - 3} << 1;
  Wide rest = ~Wide{0} - quotient * d;
  for (int unit = 0; unit < 8; ++unit) {
    const std::uint64_t fits = mask_of(rest >= Wide{d});
    quotient += Wide{fits & 1};
    rest -= Wide{fits & d};
  }
  return static_cast<std::uint64_t>(quotient);
}

// divide_pair returns high:low / d, where high < d, and stores the remainder.
inline std::uint64_t divide_pair(std::uint64_t high, std::uint64_t low,
                                 std::uint64_t d, std::uint64_t reciprocal,
                                 std::uint64_t& remainder) {
  const Wide estimate = Wide{reciprocal} * high + wide(high, low);
  std::uint64_t q = static_cast<std::uint64_t>(estimate >> 64) + 1;
  std::uint64_t r = low - q * d;
  if (r > static_cast<std::uint64_t>(estimate)) {
    --q;
    r += d;
  }
  if (r >= d) {
    ++q;
    r -= d;
  }
  remainder = r;
  return q;
}

}  // namespace velprobe

#endif  // VELPROBE_MODULES_CRYPTO_LIMB_PAIRS_H_
