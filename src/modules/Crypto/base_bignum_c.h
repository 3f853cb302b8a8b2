// Routines on bare limb arrays: the lower layer of the big numbers.
//
// A limb is 32 bits, least significant limb first. An operand is an array and
// its length in limbs. Nothing here allocates. Times and addresses depend on
// lengths alone in base_big_add, base_big_subtract, base_big_mul,
// base_big_square, base_divide without a quotient, base_mod_old_big with a
// scratch longer than a, and base_power_modulo, which also shows the
// exponent's top bit. Results that are normalised show their leading zero
// limbs. All other functions may show values by their time.
#ifndef VELPROBE_MODULES_CRYPTO_BASE_BIGNUM_C_H_
#define VELPROBE_MODULES_CRYPTO_BASE_BIGNUM_C_H_

#include <cstdint>

#include "bignum_value.h"

namespace velprobe {

// base_significant_limbs gives the length without the zero limbs at the top.
std::uint64_t base_significant_limbs(const std::uint32_t* data,
                                     std::uint64_t n);

// base_is_zero tells whether num is zero, be it normalised or not.
inline bool base_is_zero(const BigNum* num) {
  return base_significant_limbs(num->data, num->len) == 0;
}

// base_top_bit gives the zero-based index of the highest set bit; 0 for zero.
std::uint64_t base_top_bit(const std::uint32_t* data, std::uint64_t n);

// base_trailing_zeros gives the index of the lowest set bit; 0 for zero.
std::uint64_t base_trailing_zeros(const std::uint32_t* data, std::uint64_t n);

// base_compare gives a negative number, 0 or a positive number as a is below,
// equal to or above b. Both are normalised.
int base_compare(const std::uint32_t* a, std::uint64_t a_len,
                 const std::uint32_t* b, std::uint64_t b_len);

// base_assign sets dst, whose size is at least src->len, to src.
void base_assign(BigNum* dst, const BigNum* src);

// base_multiply_add returns the low limb of lhs * rhs + addend + carry and
// leaves the high one in carry.
std::uint32_t base_multiply_add(std::uint32_t lhs, std::uint32_t rhs,
                                std::uint32_t addend, std::uint32_t& carry);

// base_add_word adds w with the carry rippling upwards; returns the final
// carry.
std::uint32_t base_add_word(std::uint32_t* data, std::uint64_t n,
                            std::uint32_t w);

// base_sub_word subtracts w; returns the final borrow.
std::uint32_t base_sub_word(std::uint32_t* data, std::uint64_t n,
                            std::uint32_t w);

// base_big_add adds b to a; returns the final carry.
// Asserts b_len <= a_len.
std::uint32_t base_big_add(std::uint32_t* a, std::uint64_t a_len,
                           const std::uint32_t* b, std::uint64_t b_len);

// base_big_subtract subtracts b from a modulo 2^(32 * a_len); returns the final
// borrow. Asserts b_len <= a_len.
std::uint32_t base_big_subtract(std::uint32_t* a, std::uint64_t a_len,
                                const std::uint32_t* b, std::uint64_t b_len);

// base_shift_left_nbits_small shifts left by fewer than 32 bits; returns the
// bits that left at the top. Asserts nbits < (32).
std::uint32_t base_shift_left_nbits_small(std::uint32_t* data, std::uint64_t n,
                                          std::uint32_t nbits);

// base_shift_right_nbits_small shifts right by fewer than 32 bits.
// Asserts nbits < (32).
void base_shift_right_nbits_small(std::uint32_t* data, std::uint64_t n,
                                  std::uint32_t nbits);

// base_shift_left1 shifts left by one bit; returns the bit that left at the
// top.
std::uint32_t base_shift_left1(std::uint32_t* data, std::uint64_t n);

// base_shift_right1 shifts right by one bit.
void base_shift_right1(std::uint32_t* data, std::uint64_t n);

// base_set_bit sets one bit; the array reaches as far as limb bit / 32.
// Asserts bit >= 0.
void base_set_bit(std::uint32_t* data, std::int64_t bit);

// base_mul_assign multiplies n limbs by w; the carry goes into limb n, which is
// part of the array and zero. Asserts !data[i] for that limb.
void base_mul_assign(std::uint32_t* data, std::uint64_t n, std::uint32_t w);

// base_div_word divides by w in place; returns the remainder. Asserts w != 0.
std::uint32_t base_div_word(std::uint32_t* data, std::uint64_t n,
                            std::uint32_t w);

// base_mod_word returns the remainder of a division by w and leaves the array
// alone. Asserts w != 0.
std::uint32_t base_mod_word(const std::uint32_t* data, std::uint64_t n,
                            std::uint32_t w);

// base_div_ten19 divides by 10^19 in place; returns the remainder.
std::uint64_t base_div_ten19(std::uint32_t* data, std::uint64_t n);

// base_big_mul sets the lhs_len + rhs_len limbs of res, which overlaps neither
// operand, to the product.
void base_big_mul(std::uint32_t* res, const std::uint32_t* lhs,
                  std::uint64_t lhs_len, const std::uint32_t* rhs,
                  std::uint64_t rhs_len);

// base_big_square sets the 2 * n limbs of res, which does not overlap data, to
// the square.
void base_big_square(std::uint32_t* res, const std::uint32_t* data,
                     std::uint64_t n);

// base_set_square sets res, a number of its own with a capacity of 2 * num->len
// limbs, to the square of num.
void base_set_square(BigNum* res, const BigNum* num);

// base_divide leaves a mod m in a, whose length stays, and ORs the quotient
// into quotient unless that is null: a_len - m_len + 1 limbs, or fewer when the
// quotient is known to be shorter. m is normalised and not zero.
void base_divide(std::uint32_t* a, std::uint64_t a_len, const std::uint32_t* m,
                 std::uint64_t m_len, std::uint32_t* quotient);

// base_mod_old_big reduces a modulo b in place. Both are normalised; scratch is
// a third number whose value is lost. Returns 0, or -1 with a unchanged when b
// is zero, or scratch is too small for a, for b, or for b shifted left until it
// is at least as large as a. Asserts a->len <= b->len in the end.
int base_mod_old_big(BigNum* a, const BigNum* b, BigNum* scratch);

// base_power_modulo sets res to base^exponent mod modulus by the right-to-left
// binary method, with Montgomery's reduction for an odd modulus and division
// for an even one. mbuf and altbuf are work numbers; they come back as zero.
// All operands are normalised and distinct from res, mbuf and altbuf. An
// exponent of zero gives 1 whatever the modulus. Of the values, time and
// addresses show whether the modulus is odd, the exponent's top bit, and the
// leading zero limbs of the result.
//
// Returns 0, or -1 when modulus is zero or when one of these does not hold,
// with longest = max(base->len, modulus->len): mbuf->size >= base->len,
// res->size >= longest + modulus->len and
// 2 * longest < altbuf->size <= mbuf->size.
// Asserts res->size >= altbuf->len + mbuf->len at each multiplication and
// mbuf->size >= altbuf->len + altbuf->len at each squaring.
int base_power_modulo(BigNum* res, const BigNum* base, const BigNum* exponent,
                      const BigNum* modulus, BigNum* mbuf, BigNum* altbuf);

}  // namespace velprobe

#endif  // VELPROBE_MODULES_CRYPTO_BASE_BIGNUM_C_H_
